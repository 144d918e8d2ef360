// Worker processes on Windows: their streams, their folder and who else has their connection.

#include <gtest/gtest.h>
#include <windows.h>

#include <tlhelp32.h>
#include <winternl.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "pgm/pgm_python/worker_pool.h"
#include "tests/worker_processes.h"
#include "zel/zel_fio/fio_text_windows.h"

const std::size_t processes_of_a_worker = 1;

const int handles_of_locks = 8;

const char end_of_a_killed_process[] = "exit status 9";
const char end_of_a_crashed_process[] = "exception 0xC0000005, access violation";

namespace {

// Reads memory of another process; false when it is not there.
bool read_memory(HANDLE process, const void* place, void* buffer, std::size_t size) {
    SIZE_T count = 0;
    return ::ReadProcessMemory(process, place, buffer, size, &count) && count == size;
}

// What a process says of itself, in its own memory; the places are those of 64-bit Windows.
class PROCESS_PARAMETERS {
public:
    explicit PROCESS_PARAMETERS(HANDLE process) : m_process(process) {
        typedef LONG(WINAPI * QUERY)(HANDLE process, int kind, void* buffer, ULONG size,
                                     ULONG* needed);
        static const QUERY query = reinterpret_cast<QUERY>(reinterpret_cast<void*>(
            ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationProcess")));
        constexpr std::size_t place_in_block = 0x20;
        PROCESS_BASIC_INFORMATION basic = {};
        if (query(process, ProcessBasicInformation, &basic, sizeof basic, nullptr) == 0) {
            const char* const block = reinterpret_cast<const char*>(basic.PebBaseAddress);
            m_is_there = read_memory(process, block + place_in_block, &m_place, sizeof m_place);
        }
    }

    // The environment of its start, a zero behind each entry; empty when it cannot be read.
    std::wstring environment() const {
        const char* text = nullptr;
        MEMORY_BASIC_INFORMATION region = {};
        if (!m_is_there || !read_memory(m_process, m_place + 0x80, &text, sizeof text) ||
            ::VirtualQueryEx(m_process, text, &region, sizeof region) == 0) {
            return std::wstring();
        }
        const char* const end = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
        return text_at(text, static_cast<std::size_t>(end - text) / sizeof(wchar_t));
    }

    // Its current folder, with a separator behind it.
    std::wstring folder() const {
        UNICODE_STRING folder = {};
        return m_is_there && read_memory(m_process, m_place + 0x38, &folder, sizeof folder)
                   ? text_at(folder.Buffer, folder.Length / sizeof(wchar_t))
                   : std::wstring();
    }

private:
    std::wstring text_at(const void* place, std::size_t length) const {
        std::wstring text(length, L'\0');
        return read_memory(m_process, place, &text[0], length * sizeof(wchar_t)) ? text
                                                                                 : std::wstring();
    }

    HANDLE m_process;
    const char* m_place = nullptr;
    bool m_is_there = false;
};

// Both ends of a pipe, which are closed at the end of the scope.
struct PIPE {
    PIPE() { ::CreatePipe(&read_end, &write_end, nullptr, 0); }
    ~PIPE() {
        ::CloseHandle(read_end);
        ::CloseHandle(write_end);
    }
    PIPE(const PIPE&) = delete;
    PIPE& operator=(const PIPE&) = delete;

    // What is in it now.
    std::string content() const {
        std::array<char, 256> buffer = {};
        DWORD count = 0;
        const bool is_there =
            ::PeekNamedPipe(read_end, nullptr, 0, nullptr, &count, nullptr) && count > 0 &&
            ::ReadFile(read_end, buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr);
        return is_there ? std::string(buffer.data(), count) : std::string();
    }

    HANDLE read_end = nullptr;
    HANDLE write_end = nullptr;
};

// Another standard output until the end of the scope.
class STANDARD_OUTPUT {
public:
    STANDARD_OUTPUT() : m_before(::GetStdHandle(STD_OUTPUT_HANDLE)) {}
    ~STANDARD_OUTPUT() { ::SetStdHandle(STD_OUTPUT_HANDLE, m_before); }
    STANDARD_OUTPUT(const STANDARD_OUTPUT&) = delete;
    STANDARD_OUTPUT& operator=(const STANDARD_OUTPUT&) = delete;

    static void set(HANDLE stream) { ::SetStdHandle(STD_OUTPUT_HANDLE, stream); }

private:
    HANDLE m_before;
};

}  // namespace

std::vector<int> processes_with(const std::string& entry) {
    const std::wstring wanted = to_wide(entry) + L'\0';
    std::vector<int> found;
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W listed = {};
    listed.dwSize = sizeof listed;
    for (BOOL more = ::Process32FirstW(snapshot, &listed); more;
         more = ::Process32NextW(snapshot, &listed)) {
        // Wine gives programs without a window a console's.
        if (listed.th32ProcessID == ::GetCurrentProcessId() ||
            ::_wcsicmp(listed.szExeFile, L"conhost.exe") == 0) {
            continue;
        }
        const HANDLE process = ::OpenProcess(
            PROCESS_QUERY_INFORMATION | PROCESS_VM_READ | SYNCHRONIZE, FALSE, listed.th32ProcessID);
        if (process != nullptr) {
            if (::WaitForSingleObject(process, 0) == WAIT_TIMEOUT &&
                PROCESS_PARAMETERS(process).environment().find(wanted) != std::wstring::npos) {
                found.push_back(static_cast<int>(listed.th32ProcessID));
            }
            ::CloseHandle(process);
        }
    }
    ::CloseHandle(snapshot);
    return found;
}

void kill_process(int process) {
    if (const HANDLE handle =
            ::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(process))) {
        ::TerminateProcess(handle, 1);
        ::CloseHandle(handle);
    }
}

void run_and_kill(const std::string& script, int milliseconds) {
    const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", "worker");
    std::wstring command =
        to_wide(std::string("\"" PGM_PYTHON_PROGRAMS "/pgm_python_run.exe\" \"") + script + "\"");
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    const HANDLE nothing =
        ::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      &inherited, OPEN_EXISTING, 0, nullptr);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nothing;
    startup.hStdOutput = nothing;
    startup.hStdError = nothing;
    PROCESS_INFORMATION host = {};
    const bool started = ::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr,
                                          nullptr, &startup, &host) != 0;
    ::CloseHandle(nothing);
    ASSERT_TRUE(started);
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    ::TerminateProcess(host.hProcess, 1);
    ::WaitForSingleObject(host.hProcess, INFINITE);
    ::CloseHandle(host.hThread);
    ::CloseHandle(host.hProcess);
}

bool consoles_hold_folders() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

namespace {

TEST_F(WorkerProcesses, ACallEndsWithItsWorkerWhoeverHasItsConnection) {
    const std::string giving = installation.common_script(
        "python/giving.py", std::string(script_source) +
                                "def f(data):\n"
                                "    import ctypes\n"
                                "    system = ctypes.windll.kernel32\n"
                                "    system.GetCommandLineW.restype = ctypes.c_wchar_p\n"
                                "    inherits = 1\n"
                                "    for word in system.GetCommandLineW().split():\n"
                                "        if word.isdigit():\n"
                                "            connection = ctypes.c_void_p(int(word))\n"
                                "            system.SetHandleInformation(connection, 1, inherits)\n"
                                "    sleep(close_fds=False)\n"
                                "    os._exit(7)\n");
    PGM_PYTHON_SETTINGS::set_call_timeout(30);
    unsigned long size = 0;
    EXPECT_EQ(PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, giving, "f", {}), nullptr);
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Python worker ended in the call: exit status 7",
                       "error 20351: Fail to execute function f in file giving"}));
    EXPECT_TRUE(mark.has_at_most(processes_of_a_worker));
}

TEST_F(WorkerProcesses, AStreamWithTheNumberOfAnotherOneIsTheScripts) {
    const STANDARD_OUTPUT before;
    PIPE first;
    const PIPE second;
    STANDARD_OUTPUT::set(first.write_end);
    EXPECT_EQ(call("same"), "data");
    // The number is given again.
    const HANDLE number = std::exchange(first.write_end, nullptr);
    ::CloseHandle(number);
    std::vector<HANDLE> copies;
    for (int count = 0; count < 10000 && (copies.empty() || copies.back() != number); ++count) {
        const HANDLE self = ::GetCurrentProcess();
        copies.emplace_back();
        ASSERT_TRUE(::DuplicateHandle(self, second.write_end, self, &copies.back(), 0, FALSE,
                                      DUPLICATE_SAME_ACCESS));
    }
    EXPECT_EQ(copies.back(), number);
    STANDARD_OUTPUT::set(copies.back());
    const char* code[] = {"-c", "print('here')"};
    EXPECT_TRUE(PGM_PYTHON_MGR::run_python_file(2, code));
    EXPECT_EQ(first.content(), "");
    EXPECT_EQ(second.content().substr(0, 4), "here");
    for (const HANDLE copy : copies) {
        ::CloseHandle(copy);
    }
}

TEST_F(WorkerProcesses, AWorkerWhoseStreamsAreTheSameIsUsed) {
    const STANDARD_OUTPUT before;
    const PIPE pipe;
    STANDARD_OUTPUT::set(pipe.write_end);
    const std::string own = surroundings_of_process();
    prepare_worker(worker_program, own);
    EXPECT_TRUE(take_worker(worker_program, own, false).was_waiting);
    prepare_worker(worker_program, own);
    const PIPE other;
    STANDARD_OUTPUT::set(other.write_end);
    EXPECT_FALSE(take_worker(worker_program, own, false).was_waiting);
    STANDARD_OUTPUT::set(nullptr);
    prepare_worker(worker_program, own);
    EXPECT_TRUE(take_worker(worker_program, own, false).was_waiting);
}

TEST_F(WorkerProcesses, AWorkerThatWaitsIsInItsProgramsFolder) {
    const CURRENT_FOLDER changed(installation.folder().make_folder("work"));
    EXPECT_EQ(call("same"), "data");
    const std::wstring expected =
        std::filesystem::u8path(PGM_PYTHON_PROGRAMS "/").make_preferred().wstring();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::wstring folder;
    while (folder != expected && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        for (const int number : mark.processes()) {
            const HANDLE process = ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE,
                                                 static_cast<DWORD>(number));
            folder = PROCESS_PARAMETERS(process).folder();
            ::CloseHandle(process);
        }
    }
    EXPECT_EQ(to_utf8(folder), to_utf8(expected));
}

TEST_F(WorkerProcesses, AFolderThatIsGoneFailsTheCallWithTheReason) {
    const TEMPORARY_FOLDER folder;
    const CURRENT_FOLDER changed(folder.make_folder("parent/work"));
    const std::string name = std::filesystem::current_path().string();
    EXPECT_EQ(call("folder"), name);
    const std::unique_ptr<WORKER_PROCESS> outside =
        take_worker(worker_program, surroundings_of_process(), true).process;
    ASSERT_TRUE(outside && outside->greets());
    std::error_code error;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::filesystem::rename(folder.path() + "/parent", folder.path() + "/moved", error);
    } while (error && std::chrono::steady_clock::now() < limit);
    if (error) {
        GTEST_SKIP() << "the system keeps the host's folder where it is";
    }
    // Of one that waited, and of a new one.
    EXPECT_TRUE(outside->send_streams());
    char byte = 0;
    EXPECT_FALSE(outside->read(&byte, 1));
    const std::string reason = "current folder " + name + " cannot be entered: ";
    EXPECT_EQ(outside->end().compare(0, reason.size(), reason), 0);
    // One that does not read its request says so, too.
    const std::unique_ptr<WORKER_PROCESS> unread =
        take_worker(worker_program, surroundings_of_process(), false).process;
    ASSERT_TRUE(unread && unread->greets());
    EXPECT_TRUE(unread->send_streams());
    const std::string many(std::size_t{4} << 20, 'x');
    EXPECT_FALSE(unread->write({{many.data(), many.size()}}));
    EXPECT_EQ(unread->end().compare(0, reason.size(), reason), 0);
    EXPECT_EQ(call("folder"), "no bytes");
    ASSERT_EQ(receiver.reports.size(), 2U);
    const std::string start = "error: Python worker " + worker_program + " cannot be started: ";
    EXPECT_EQ(receiver.reports[0].compare(0, start.size(), start), 0) << receiver.reports[0];
    EXPECT_GT(receiver.reports[0].size(), start.size());
    std::filesystem::rename(folder.path() + "/moved", folder.path() + "/parent", error);
    EXPECT_EQ(call("folder"), name);
}

}  // namespace
