// A worker is one process in a job object of its own, which ends with all that is in it when its
// only handle is closed: by the host, or by the system when the host is gone. The connection is a
// pair of pipes. The standard streams are those of the worker's start; a worker that waits is not
// used when they have changed since.

#include <windows.h>

#include <array>
#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "pgm/pgm_python/worker_process.h"
#include "zel/zel_fio/fio_text_windows.h"

namespace {

typedef std::chrono::steady_clock CLOCK;

// What hosts call a worker with, before the numbers of its two handles and the locale.
constexpr char worker_mark[] = "--worker-of-a-host-1";
constexpr std::uint32_t greeting = 0x6B656570;

constexpr double greeting_limit_seconds = 60;
constexpr DWORD ending_limit_ms = 1000;

// A handle that is closed at the end of its scope.
class OWNED_HANDLE {
public:
    OWNED_HANDLE() = default;
    explicit OWNED_HANDLE(HANDLE handle) : m_handle(handle) {}
    ~OWNED_HANDLE() { close(); }
    OWNED_HANDLE(OWNED_HANDLE&& other)
    noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    OWNED_HANDLE& operator=(OWNED_HANDLE&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    OWNED_HANDLE(const OWNED_HANDLE&) = delete;
    OWNED_HANDLE& operator=(const OWNED_HANDLE&) = delete;

    HANDLE get() const { return m_handle; }
    HANDLE* address() { return &m_handle; }
    void close() {
        if (m_handle != nullptr) {
            ::CloseHandle(std::exchange(m_handle, nullptr));
        }
    }

private:
    HANDLE m_handle = nullptr;
};

bool is_there(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE;
}

constexpr std::array<DWORD, 3> stream_numbers = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE,
                                                 STD_ERROR_HANDLE};

// The most that one call of the system takes.
constexpr std::size_t most_at_once = 1U << 20;

bool read_all(HANDLE pipe, void* buffer, std::size_t size) {
    char* at = static_cast<char*>(buffer);
    while (size > 0) {
        DWORD count = 0;
        if (!::ReadFile(pipe, at, static_cast<DWORD>(size < most_at_once ? size : most_at_once),
                        &count, nullptr) ||
            count == 0) {
            return false;
        }
        at += count;
        size -= count;
    }
    return true;
}

bool write_all(HANDLE pipe, const std::vector<FRAME_PART>& parts) {
    for (const FRAME_PART& part : parts) {
        const char* at = static_cast<const char*>(part.data);
        for (std::size_t left = part.size; left > 0;) {
            DWORD count = 0;
            if (!::WriteFile(pipe, at,
                             static_cast<DWORD>(left < most_at_once ? left : most_at_once), &count,
                             nullptr)) {
                return false;
            }
            at += count;
            left -= count;
        }
    }
    return true;
}

std::string text_of_error(DWORD error) {
    std::array<wchar_t, 512> text = {};
    DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                         0, text.data(), static_cast<DWORD>(text.size()), nullptr);
    while (length > 0 && (text[length - 1] == L'\n' || text[length - 1] == L'\r' ||
                          text[length - 1] == L'.' || text[length - 1] == L' ')) {
        --length;
    }
    return length == 0 ? "error " + std::to_string(error)
                       : to_utf8(std::wstring(text.data(), length));
}

// How a process ended. What Windows ends a process for is a number of its own kind.
std::string text_of_status(DWORD status) {
    constexpr DWORD first_exception = 0xC0000000;
    if (status < first_exception) {
        return "exit status " + std::to_string(status);
    }
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "exception 0x%08lX",
                  static_cast<unsigned long>(status));
    return text.data() + std::string(status == 0xC0000005 ? ", access violation" : "");
}

class WINDOWS_WORKER : public WORKER_PROCESS {
public:
    WINDOWS_WORKER(OWNED_HANDLE job, OWNED_HANDLE process, OWNED_HANDLE input, OWNED_HANDLE output)
        : m_job(std::move(job)),
          m_process(std::move(process)),
          m_input(std::move(input)),
          m_output(std::move(output)) {}

    ~WINDOWS_WORKER() override { stop_timer(); }

    bool is_waiting() override { return ::WaitForSingleObject(m_process.get(), 0) == WAIT_TIMEOUT; }

    bool greets() override {
        if (!m_greeted) {
            const bool has_limit = m_timer != nullptr;
            if (!has_limit) {
                start_timer(greeting_limit_seconds);
            }
            std::uint32_t word = 0;
            m_greeted = read_all(m_output.get(), &word, sizeof word) && word == greeting;
            if (!has_limit) {
                stop_timer();
                m_time_is_up = false;  // the call has no limit
            }
        }
        return m_greeted;
    }

    bool send_streams() override { return true; }

    void set_time_limit(double seconds) override {
        stop_timer();
        if (seconds > 0) {
            start_timer(seconds);
        }
    }

    bool time_is_up() const override { return m_time_is_up; }

    bool read(void* buffer, std::size_t size) override {
        return read_all(m_output.get(), buffer, size);
    }

    bool write(const std::vector<FRAME_PART>& parts) override {
        return write_all(m_input.get(), parts);
    }

    void let_go() override {
        stop_timer();
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
        ::SetInformationJobObject(m_job.get(), JobObjectExtendedLimitInformation, &limits,
                                  sizeof limits);
    }

    std::string end() override {
        stop_timer();
        // One that broke the connection is about to end.
        const bool ended_by_itself =
            ::WaitForSingleObject(m_process.get(), ending_limit_ms) == WAIT_OBJECT_0;
        DWORD status = 0;
        ::GetExitCodeProcess(m_process.get(), &status);
        ::TerminateJobObject(m_job.get(), 1);
        ::WaitForSingleObject(m_process.get(), ending_limit_ms);
        return ended_by_itself ? text_of_status(status) : "it was ended";
    }

private:
    // Ends the worker, so that what waits for it goes on.
    static void CALLBACK end_for_time(void* worker, BOOLEAN /*fired*/) {
        WINDOWS_WORKER& self = *static_cast<WINDOWS_WORKER*>(worker);
        self.m_time_is_up = true;
        ::TerminateJobObject(self.m_job.get(), 1);
    }

    void start_timer(double seconds) {
        constexpr double longest = 4e6;
        ::CreateTimerQueueTimer(&m_timer, nullptr, end_for_time, this,
                                static_cast<DWORD>((seconds < longest ? seconds : longest) * 1000),
                                0, WT_EXECUTEONLYONCE);
    }

    // When it returns the timer's function does not run and will not.
    void stop_timer() {
        if (m_timer != nullptr) {
            ::DeleteTimerQueueTimer(nullptr, std::exchange(m_timer, nullptr), INVALID_HANDLE_VALUE);
        }
    }

    OWNED_HANDLE m_job;
    OWNED_HANDLE m_process;
    OWNED_HANDLE m_input;
    OWNED_HANDLE m_output;
    HANDLE m_timer = nullptr;
    std::atomic<bool> m_time_is_up{false};
    bool m_greeted = false;
};

// What a started process inherits: these handles and no others.
class INHERITANCE {
public:
    ~INHERITANCE() {
        if (m_list != nullptr) {
            ::DeleteProcThreadAttributeList(m_list);
        }
    }
    INHERITANCE() = default;
    INHERITANCE(const INHERITANCE&) = delete;
    INHERITANCE& operator=(const INHERITANCE&) = delete;

    // A copy that is inherited, closed here at the end of the scope; null for no handle.
    HANDLE add(HANDLE handle) {
        HANDLE copy = nullptr;
        if (!is_there(handle) ||
            !::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, TRUE,
                               DUPLICATE_SAME_ACCESS)) {
            return nullptr;
        }
        m_owned.emplace_back(copy);
        m_handles.push_back(copy);
        return copy;
    }

    LPPROC_THREAD_ATTRIBUTE_LIST list() {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        m_memory.resize(size);
        const auto list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_memory.data());
        if (!::InitializeProcThreadAttributeList(list, 1, 0, &size)) {
            return nullptr;
        }
        m_list = list;
        return ::UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                           m_handles.data(), m_handles.size() * sizeof(HANDLE),
                                           nullptr, nullptr)
                   ? list
                   : nullptr;
    }

private:
    std::vector<OWNED_HANDLE> m_owned;
    std::vector<HANDLE> m_handles;
    std::vector<char> m_memory;
    LPPROC_THREAD_ATTRIBUTE_LIST m_list = nullptr;
};

// A job that ends what is in it with its last handle; null when there cannot be one.
HANDLE new_job() {
    OWNED_HANDLE job(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job.get() == nullptr ||
        !::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits,
                                   sizeof limits)) {
        return nullptr;
    }
    return std::exchange(*job.address(), nullptr);
}

std::string number_of(HANDLE handle) {
    return std::to_string(reinterpret_cast<std::uintptr_t>(handle));
}

HANDLE handle_of(const char* number) {
    return reinterpret_cast<HANDLE>(
        static_cast<std::uintptr_t>(std::strtoull(number, nullptr, 10)));
}

class WINDOWS_HOST_CONNECTION : public HOST_CONNECTION {
public:
    WINDOWS_HOST_CONNECTION(HANDLE input, HANDLE output) : m_input(input), m_output(output) {}

    bool read(void* buffer, std::size_t size) override { return read_all(m_input, buffer, size); }
    bool write(const std::vector<FRAME_PART>& parts) override { return write_all(m_output, parts); }
    void release_streams() override {}
    bool receive_streams() override { return true; }
    bool is_own() const override { return true; }

private:
    HANDLE m_input;
    HANDLE m_output;
};

// Which stream this is.
std::wstring identity_of_stream(DWORD number) {
    const HANDLE stream = ::GetStdHandle(number);
    if (!is_there(stream)) {
        return L"-";
    }
    BY_HANDLE_FILE_INFORMATION file = {};
    if (::GetFileType(stream) == FILE_TYPE_DISK && ::GetFileInformationByHandle(stream, &file)) {
        return std::to_wstring(file.dwVolumeSerialNumber) + L":" +
               std::to_wstring(file.nFileIndexHigh) + L":" + std::to_wstring(file.nFileIndexLow);
    }
    return std::to_wstring(reinterpret_cast<std::uintptr_t>(stream));
}

}  // namespace

const char worker_program_name[] = "pgm_python_worker.exe";

std::mutex& workers_mutex() {
    static std::mutex mutex;
    return mutex;
}

std::string surroundings_of_process() {
    std::wstring text;
    if (wchar_t* const variables = ::GetEnvironmentStringsW()) {
        const wchar_t* at = variables;
        while (*at != L'\0') {
            const std::wstring variable = at;
            text += variable + L'\0';
            at += variable.size() + 1;
        }
        ::FreeEnvironmentStringsW(variables);
    }
    text += L'\0' + wide_text_from([](wchar_t* buffer, DWORD size) {
                return ::GetCurrentDirectoryW(size, buffer);
            });
    for (const DWORD number : stream_numbers) {
        text += L'\0' + identity_of_stream(number);
    }
    const char* const locale = std::setlocale(LC_ALL, nullptr);
    return to_utf8(text) + '\0' + (locale == nullptr ? "" : locale);
}

std::string folder_of_library() {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<const wchar_t*>(&folder_of_library), &module)) {
        return std::string();
    }
    const std::wstring file = wide_text_from([module](wchar_t* buffer, DWORD size) {
        return ::GetModuleFileNameW(module, buffer, size);
    });
    return to_utf8(file.substr(0, file.find_last_of(L"\\/")));
}

bool is_program(const std::string& file) {
    const DWORD attributes = ::GetFileAttributesW(to_wide(file).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::unique_ptr<WORKER_PROCESS> WORKER_PROCESS::start(const std::string& program,
                                                      std::string& reason) {
    // The far ends are closed here at the end of the scope, or nobody would see the worker's end.
    OWNED_HANDLE input;
    OWNED_HANDLE far_input;
    OWNED_HANDLE output;
    OWNED_HANDLE far_output;
    OWNED_HANDLE job(new_job());
    OWNED_HANDLE process;
    INHERITANCE inheritance;
    const auto fails = [&reason]() -> std::unique_ptr<WORKER_PROCESS> {
        reason = text_of_error(::GetLastError());
        return nullptr;
    };
    if (job.get() == nullptr ||
        !::CreatePipe(far_input.address(), input.address(), nullptr, most_at_once) ||
        !::CreatePipe(output.address(), far_output.address(), nullptr, most_at_once)) {
        return fails();
    }
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = inheritance.add(::GetStdHandle(STD_INPUT_HANDLE));
    startup.StartupInfo.hStdOutput = inheritance.add(::GetStdHandle(STD_OUTPUT_HANDLE));
    startup.StartupInfo.hStdError = inheritance.add(::GetStdHandle(STD_ERROR_HANDLE));
    const HANDLE inherited_input = inheritance.add(far_input.get());
    const HANDLE inherited_output = inheritance.add(far_output.get());
    startup.lpAttributeList = inheritance.list();
    if (startup.lpAttributeList == nullptr) {
        return fails();
    }
    const char* const locale = std::setlocale(LC_ALL, nullptr);
    std::wstring command =
        to_wide("\"" + program + "\" " + worker_mark + " " + number_of(inherited_input) + " " +
                number_of(inherited_output) + " \"" + (locale == nullptr ? "" : locale) + "\"");
    PROCESS_INFORMATION started = {};
    // A host without a console gets none by this.
    const DWORD window = ::GetConsoleWindow() == nullptr ? CREATE_NO_WINDOW : 0;
    if (!::CreateProcessW(to_wide(program).c_str(), &command[0], nullptr, nullptr, TRUE,
                          EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED | window, nullptr,
                          nullptr, &startup.StartupInfo, &started)) {
        return fails();
    }
    process = OWNED_HANDLE(started.hProcess);
    const OWNED_HANDLE thread(started.hThread);
    if (!::AssignProcessToJobObject(job.get(), started.hProcess)) {
        const std::unique_ptr<WORKER_PROCESS> none = fails();
        ::TerminateProcess(started.hProcess, 1);
        return nullptr;
    }
    ::ResumeThread(started.hThread);
    return std::make_unique<WINDOWS_WORKER>(std::move(job), std::move(process), std::move(input),
                                            std::move(output));
}

int serve_worker(int argc, char** argv, void (*serve)(HOST_CONNECTION& host)) {
    if (argc != 5 || std::strcmp(argv[1], worker_mark) != 0) {
        std::fputs("This program serves the calls of pgm_python; it is not for use by hand.\n",
                   stderr);
        return 2;
    }
    const HANDLE input = handle_of(argv[2]);
    const HANDLE output = handle_of(argv[3]);
    // What a script starts does not get them.
    ::SetHandleInformation(input, HANDLE_FLAG_INHERIT, 0);
    ::SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);
    std::setlocale(LC_ALL, argv[4]);
    WINDOWS_HOST_CONNECTION connection(input, output);
    if (connection.write({{&greeting, sizeof greeting}})) {
        serve(connection);
    }
    end_worker();
}

void end_worker() {
    std::fflush(nullptr);
    std::_Exit(0);
}
