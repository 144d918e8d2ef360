// A worker is one process in a job object of its own, which ends with all that is in it when its
// only handle is closed: by the host, or by the system when the host is gone. The connection is a
// pipe; it ends for the host with the worker's process, whoever else has the far end. The standard
// streams are those of the worker's start; a worker that waits is not used when they have changed
// since.
//
// A process keeps its current folder from being renamed and deleted. A worker starts in the host's,
// as the start of the interpreter may depend on it: relative entries of PATH and PYTHONPATH,
// relative names in other variables that code of site-packages reads then. It leaves the folder
// when the interpreter has started, enters it again with its call, and leaves it before it answers.
// So the folder stays among the surroundings that a worker must have been started in.

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <array>
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

// What hosts call a worker with, before the number of its handle and the locale.
constexpr char worker_mark[] = "--worker-of-a-host-1";
constexpr std::uint32_t greeting = 0x6B656570;

constexpr std::chrono::seconds greeting_limit(60);
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

// Another handle of the same object; an empty one for no handle.
OWNED_HANDLE copy_of(HANDLE handle, BOOL is_inherited) {
    HANDLE copy = nullptr;
    const HANDLE self = ::GetCurrentProcess();
    return OWNED_HANDLE(is_there(handle) && ::DuplicateHandle(self, handle, self, &copy, 0,
                                                              is_inherited, DUPLICATE_SAME_ACCESS)
                            ? copy
                            : nullptr);
}

constexpr std::array<DWORD, 3> stream_numbers = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE,
                                                 STD_ERROR_HANDLE};

// The most that one call of the system takes.
constexpr std::size_t most_at_once = 1U << 20;

DWORD at_once(std::size_t size) {
    return static_cast<DWORD>(std::min(size, most_at_once));
}

// Reads the whole buffer, or writes it; `step` does a part of it and returns how much, 0 for the
// end.
template <typename BYTE_TYPE, typename STEP>
bool move_all(BYTE_TYPE* buffer, std::size_t size, const STEP& step) {
    for (BYTE_TYPE* at = buffer; size > 0;) {
        const DWORD count = step(at, at_once(size));
        if (count == 0) {
            return false;
        }
        at += count;
        size -= count;
    }
    return true;
}

template <typename STEP>
bool move_parts(const std::vector<FRAME_PART>& parts, const STEP& step) {
    return std::all_of(parts.begin(), parts.end(), [&step](const FRAME_PART& part) {
        return move_all(static_cast<const char*>(part.data), part.size, step);
    });
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

// The folder that this process is in.
std::wstring current_folder() {
    return wide_text_from(
        [](wchar_t* buffer, DWORD size) { return ::GetCurrentDirectoryW(size, buffer); });
}

// Whether two handles are of one object. Where the system does not tell, before Windows 10, the
// handles of one number are: that of which `copy` is one, and `now`.
bool are_of_one_object(HANDLE copy, HANDLE original, HANDLE now) {
    typedef BOOL(WINAPI * COMPARE)(HANDLE one, HANDLE other);
    static const COMPARE compare = reinterpret_cast<COMPARE>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"kernelbase.dll"), "CompareObjectHandles")));
    return compare == nullptr ? original == now : compare(copy, now) != 0;
}

// A standard stream of the host's. While the copy is there no other stream is the same object.
struct STREAM_AT_START {
    HANDLE original = nullptr;
    OWNED_HANDLE copy;

    bool is_still(HANDLE now) const {
        return copy.get() == nullptr
                   ? !is_there(now)
                   : is_there(now) && are_of_one_object(copy.get(), original, now);
    }
};

typedef std::array<STREAM_AT_START, stream_numbers.size()> STREAMS_AT_START;

// What the system has of a worker.
struct WORKER_HANDLES {
    OWNED_HANDLE job;
    OWNED_HANDLE process;
    OWNED_HANDLE pipe;   // overlapped
    OWNED_HANDLE event;  // for what is done on it
    STREAMS_AT_START streams;
};

class WINDOWS_WORKER : public WORKER_PROCESS {
public:
    explicit WINDOWS_WORKER(WORKER_HANDLES handles) : m_handles(std::move(handles)) {}

    bool is_waiting() override {
        for (std::size_t stream = 0; stream < stream_numbers.size(); ++stream) {
            if (!m_handles.streams[stream].is_still(::GetStdHandle(stream_numbers[stream]))) {
                return false;
            }
        }
        return ::WaitForSingleObject(m_handles.process.get(), 0) == WAIT_TIMEOUT;
    }

    bool greets() override {
        if (!m_greeted) {
            std::uint32_t word = 0;
            m_greeted =
                read_until(std::min(m_limit, CLOCK::now() + greeting_limit), &word, sizeof word) &&
                word == greeting;
        }
        return m_greeted;
    }

    bool send_streams() override {
        m_handles.streams = STREAMS_AT_START();  // it is a waiting one's no more
        const std::wstring folder = current_folder();
        const std::uint32_t length = static_cast<std::uint32_t>(folder.size());
        m_entry_is_due = true;
        return write({{&length, sizeof length}, {folder.data(), folder.size() * sizeof(wchar_t)}});
    }

    void set_time_limit(double seconds) override {
        constexpr double longest = 4e6;  // a wait has 32 bits for its milliseconds
        m_limit = seconds > 0 && seconds < longest
                      ? CLOCK::now() + std::chrono::duration_cast<CLOCK::duration>(
                                           std::chrono::duration<double>(seconds))
                      : CLOCK::time_point::max();
    }

    bool time_is_up() const override { return CLOCK::now() >= m_limit; }

    bool read(void* buffer, std::size_t size) override {
        return has_entered_folder() && read_until(m_limit, buffer, size);
    }

    bool write(const std::vector<FRAME_PART>& parts) override {
        return move_parts(parts, [this](const char* from, DWORD size) {
            return transfer(m_limit, [&](OVERLAPPED* operation) {
                return ::WriteFile(m_handles.pipe.get(), from, size, nullptr, operation);
            });
        });
    }

    void let_go() override {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
        ::SetInformationJobObject(m_handles.job.get(), JobObjectExtendedLimitInformation, &limits,
                                  sizeof limits);
    }

    std::string end() override {
        // One that broke the connection is about to end.
        const HANDLE process = m_handles.process.get();
        const bool ended_by_itself =
            ::WaitForSingleObject(process, time_is_up() ? 0 : ending_limit_ms) == WAIT_OBJECT_0;
        if (ended_by_itself) {
            has_entered_folder();  // a long request breaks off before this is read
        }
        DWORD status = 0;
        ::GetExitCodeProcess(process, &status);
        ::TerminateJobObject(m_handles.job.get(), 1);
        ::WaitForSingleObject(process, ending_limit_ms);
        if (!m_obstacle.empty()) {
            return m_obstacle;
        }
        return ended_by_itself ? text_of_status(status) : "it was ended";
    }

private:
    // Whether the worker is in the host's folder, which it tells before all else.
    bool has_entered_folder() {
        if (std::exchange(m_entry_is_due, false)) {
            DWORD error = ERROR_SUCCESS;
            m_is_there = read_until(m_limit, &error, sizeof error) && error == ERROR_SUCCESS;
            if (error != ERROR_SUCCESS) {
                m_obstacle = "current folder " + to_utf8(current_folder()) +
                             " cannot be entered: " + text_of_error(error);
            }
        }
        return m_is_there;
    }

    bool read_until(CLOCK::time_point limit, void* buffer, std::size_t size) {
        return move_all(static_cast<char*>(buffer), size, [this, limit](char* to, DWORD most) {
            return transfer(limit, [&](OVERLAPPED* operation) {
                return ::ReadFile(m_handles.pipe.get(), to, most, nullptr, operation);
            });
        });
    }

    // One operation on the pipe, begun by `begin`. The count of bytes; 0: there will be none, as
    // the worker has ended or the time is up. When it returns the system has let go of the buffer.
    template <typename BEGIN>
    DWORD transfer(CLOCK::time_point limit, const BEGIN& begin) {
        const DWORD patience = milliseconds_until(limit);
        if (patience == 0) {  // there may always be something to read
            return 0;
        }
        const HANDLE pipe = m_handles.pipe.get();
        OVERLAPPED operation = {};
        operation.hEvent = m_handles.event.get();
        const bool is_done = begin(&operation) != 0;
        if (!is_done && ::GetLastError() != ERROR_IO_PENDING) {
            return 0;
        }
        // When the worker is gone there may be one who has its end of the pipe, and nothing will
        // come of it: a program that this host started on another thread while the worker's was
        // made. What the worker wrote before its end is there, and reading it does not wait.
        const std::array<HANDLE, 2> either = {operation.hEvent, m_handles.process.get()};
        if (!is_done && ::WaitForMultipleObjects(static_cast<DWORD>(either.size()), either.data(),
                                                 FALSE, patience) != WAIT_OBJECT_0) {
            ::CancelIoEx(pipe, &operation);
        }
        // What was done before it could be cancelled counts.
        DWORD count = 0;
        return ::GetOverlappedResult(pipe, &operation, &count, TRUE) ? count : 0;
    }

    static DWORD milliseconds_until(CLOCK::time_point limit) {
        if (limit == CLOCK::time_point::max()) {
            return INFINITE;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - CLOCK::now());
        return static_cast<DWORD>(std::clamp<long long>(left.count(), 0, INFINITE - 1));
    }

    WORKER_HANDLES m_handles;
    CLOCK::time_point m_limit = CLOCK::time_point::max();
    bool m_greeted = false;
    bool m_entry_is_due = false;
    bool m_is_there = true;
    std::string m_obstacle;
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
        OWNED_HANDLE copy = copy_of(handle, TRUE);
        if (copy.get() == nullptr) {
            return nullptr;
        }
        m_handles.push_back(copy.get());
        m_owned.push_back(std::move(copy));
        return m_handles.back();
    }

    // With it the process is in the job from its beginning, where the system can do that (Windows
    // 10): a host that is killed in the midst of a start leaves nothing.
    LPPROC_THREAD_ATTRIBUTE_LIST list(HANDLE job) {
        constexpr DWORD count = 2;
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, count, 0, &size);
        m_memory.resize(size);
        const auto list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_memory.data());
        if (!::InitializeProcThreadAttributeList(list, count, 0, &size)) {
            return nullptr;
        }
        m_list = list;
        m_job = job;
        ::UpdateProcThreadAttribute(list, 0, job_attribute, &m_job, sizeof m_job, nullptr, nullptr);
        return ::UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                           m_handles.data(), m_handles.size() * sizeof(HANDLE),
                                           nullptr, nullptr)
                   ? list
                   : nullptr;
    }

private:
    // PROC_THREAD_ATTRIBUTE_JOB_LIST, which headers for an older Windows do not have.
    static constexpr DWORD_PTR job_attribute = 0x0002000D;

    std::vector<OWNED_HANDLE> m_owned;
    std::vector<HANDLE> m_handles;
    std::vector<char> m_memory;
    HANDLE m_job = nullptr;
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

std::wstring file_of_module(HMODULE module) {
    return wide_text_from([module](wchar_t* buffer, DWORD size) {
        return ::GetModuleFileNameW(module, buffer, size);
    });
}

std::wstring folder_of_module(HMODULE module) {
    const std::wstring file = file_of_module(module);
    return file.substr(0, file.find_last_of(L"\\/"));
}

class WINDOWS_HOST_CONNECTION : public HOST_CONNECTION {
public:
    explicit WINDOWS_HOST_CONNECTION(HANDLE pipe) : m_pipe(pipe) {}

    bool read(void* buffer, std::size_t size) override {
        return move_all(static_cast<char*>(buffer), size, [this](char* to, DWORD most) {
            DWORD count = 0;
            return ::ReadFile(m_pipe, to, most, &count, nullptr) ? count : 0;
        });
    }

    bool write(const std::vector<FRAME_PART>& parts) override {
        return move_parts(parts, [this](const char* from, DWORD size) {
            DWORD count = 0;
            return ::WriteFile(m_pipe, from, size, &count, nullptr) ? count : 0;
        });
    }

    void release_streams() override {}

    bool receive_streams() override {
        constexpr std::uint32_t longest = 0x8000;
        std::uint32_t length = 0;
        if (!read(&length, sizeof length) || length > longest) {
            return false;
        }
        std::wstring folder(length, L'\0');
        if (!read(&folder[0], length * sizeof(wchar_t))) {
            return false;
        }
        const DWORD error =
            ::SetCurrentDirectoryW(folder.c_str()) ? ERROR_SUCCESS : ::GetLastError();
        return write({{&error, sizeof error}}) && error == ERROR_SUCCESS;
    }

    // To the program's own folder, which the program itself keeps where it is. The system knows the
    // root of a drive only with its separator.
    void leave_folder() override {
        ::SetCurrentDirectoryW((folder_of_module(nullptr) + L"\\").c_str());
    }

    bool is_own() const override { return true; }

private:
    HANDLE m_pipe;
};

// A pipe under a name that nobody knows: the near end, overlapped, and the far end. Neither is
// inherited. False with the error of the system.
bool make_pipe(OWNED_HANDLE& near_end, OWNED_HANDLE& far_end, HANDLE event) {
    std::array<std::uint32_t, 4> word = {};
    if (::BCryptGenRandom(nullptr, reinterpret_cast<unsigned char*>(word.data()),
                          static_cast<ULONG>(sizeof word), BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0) {
        ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return false;
    }
    std::wstring name = L"\\\\.\\pipe\\pgm_python_worker";
    for (const std::uint32_t part : word) {
        name += L"_" + std::to_wstring(part);
    }
    const HANDLE made = ::CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
        most_at_once, most_at_once, 0, nullptr);
    if (!is_there(made)) {
        return false;
    }
    near_end = OWNED_HANDLE(made);
    const HANDLE opened = ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
    if (!is_there(opened)) {
        return false;
    }
    far_end = OWNED_HANDLE(opened);
    OVERLAPPED operation = {};
    operation.hEvent = event;
    DWORD ignored = 0;
    return ::ConnectNamedPipe(made, &operation) || ::GetLastError() == ERROR_PIPE_CONNECTED ||
           (::GetLastError() == ERROR_IO_PENDING &&
            ::GetOverlappedResult(made, &operation, &ignored, TRUE));
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
    text += L'\0' + current_folder();
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
    return to_utf8(folder_of_module(module));
}

bool is_program(const std::string& file) {
    const DWORD attributes = ::GetFileAttributesW(to_wide(file).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::unique_ptr<WORKER_PROCESS> WORKER_PROCESS::start(const std::string& program,
                                                      std::string& reason) {
    WORKER_HANDLES handles;
    OWNED_HANDLE far_end;
    INHERITANCE inheritance;
    const auto fails = [&reason]() -> std::unique_ptr<WORKER_PROCESS> {
        reason = text_of_error(::GetLastError());
        return nullptr;
    };
    handles.job = OWNED_HANDLE(new_job());
    handles.event = OWNED_HANDLE(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (handles.job.get() == nullptr || handles.event.get() == nullptr ||
        !make_pipe(handles.pipe, far_end, handles.event.get())) {
        return fails();
    }
    std::array<HANDLE, stream_numbers.size()> streams = {};
    for (std::size_t stream = 0; stream < stream_numbers.size(); ++stream) {
        STREAM_AT_START& kept = handles.streams[stream];
        kept.original = ::GetStdHandle(stream_numbers[stream]);
        streams[stream] = inheritance.add(kept.original);
        // Of the one that goes to the worker, so that it is that one whatever other threads do.
        kept.copy = copy_of(streams[stream], FALSE);
    }
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = streams[0];
    startup.StartupInfo.hStdOutput = streams[1];
    startup.StartupInfo.hStdError = streams[2];
    const HANDLE inherited_end = inheritance.add(far_end.get());
    startup.lpAttributeList = inheritance.list(handles.job.get());
    if (startup.lpAttributeList == nullptr) {
        return fails();
    }
    const char* const locale = std::setlocale(LC_ALL, nullptr);
    std::wstring command =
        to_wide("\"" + program + "\" " + worker_mark + " " + number_of(inherited_end) + " \"" +
                (locale == nullptr ? "" : locale) + "\"");
    PROCESS_INFORMATION started = {};
    // A host without a console gets none by this.
    const DWORD window = ::GetConsoleWindow() == nullptr ? CREATE_NO_WINDOW : 0;
    // Where no folder is named the system starts it in another one when it cannot enter the host's.
    if (!::CreateProcessW(to_wide(program).c_str(), &command[0], nullptr, nullptr, TRUE,
                          EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED | window, nullptr,
                          current_folder().c_str(), &startup.StartupInfo, &started)) {
        return fails();
    }
    handles.process = OWNED_HANDLE(started.hProcess);
    const OWNED_HANDLE thread(started.hThread);
    BOOL is_in_job = FALSE;
    ::IsProcessInJob(started.hProcess, handles.job.get(), &is_in_job);
    if (!is_in_job && !::AssignProcessToJobObject(handles.job.get(), started.hProcess)) {
        const std::unique_ptr<WORKER_PROCESS> none = fails();
        ::TerminateProcess(started.hProcess, 1);
        return nullptr;
    }
    ::ResumeThread(started.hThread);
    return std::make_unique<WINDOWS_WORKER>(std::move(handles));
}

int serve_worker(int argc, char** argv, void (*serve)(HOST_CONNECTION& host)) {
    if (argc != 4 || std::strcmp(argv[1], worker_mark) != 0) {
        std::fputs("This program serves the calls of pgm_python; it is not for use by hand.\n",
                   stderr);
        return 2;
    }
    const HANDLE pipe = handle_of(argv[2]);
    // What a script starts does not get it.
    ::SetHandleInformation(pipe, HANDLE_FLAG_INHERIT, 0);
    std::setlocale(LC_ALL, argv[3]);
    WINDOWS_HOST_CONNECTION connection(pipe);
    if (connection.write({{&greeting, sizeof greeting}})) {
        serve(connection);
    }
    end_worker();
}

void end_worker() {
    std::fflush(nullptr);
    std::_Exit(0);
}
