#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <system_error>

#include "tools/tool_platform.h"
#include "zel/zel_fio/fio_text_windows.h"

namespace {

// A handle that is closed at the end of its scope.
class OWNED_HANDLE {
public:
    explicit OWNED_HANDLE(HANDLE handle) : m_handle(handle) {}
    ~OWNED_HANDLE() { close(); }
    OWNED_HANDLE(const OWNED_HANDLE&) = delete;
    OWNED_HANDLE& operator=(const OWNED_HANDLE&) = delete;

    bool is_open() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return m_handle; }
    // Whether nothing was lost.
    bool close() {
        const HANDLE handle = m_handle;
        m_handle = INVALID_HANDLE_VALUE;
        return handle == INVALID_HANDLE_VALUE || ::CloseHandle(handle) != 0;
    }

private:
    HANDLE m_handle;
};

// Of the last failure.
std::string reason_of_system() {
    return std::system_category().message(static_cast<int>(::GetLastError()));
}

bool write_all(HANDLE handle, const void* bytes, std::size_t size) {
    constexpr std::size_t most_at_once = 1U << 20U;
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const DWORD count = static_cast<DWORD>(size < most_at_once ? size : most_at_once);
        DWORD written = 0;
        if (::WriteFile(handle, next, count, &written, nullptr) == 0) {
            return false;
        }
        next += written;
        size -= written;
    }
    return true;
}

// Where results go once the standard output is diverted.
HANDLE standard_output = INVALID_HANDLE_VALUE;

HANDLE results_handle() {
    return standard_output == INVALID_HANDLE_VALUE ? ::GetStdHandle(STD_OUTPUT_HANDLE)
                                                   : standard_output;
}

bool is_console(HANDLE handle) {
    DWORD mode = 0;
    return ::GetConsoleMode(handle, &mode) != 0;
}

// Python uses a C runtime that may be another than the program's, with descriptors of its own.
typedef int __cdecl OPEN_OSFHANDLE(std::intptr_t handle, int flags);
typedef int __cdecl DUP2(int from, int to);
typedef int __cdecl CLOSE(int descriptor);
typedef int __cdecl WPUTENV(const wchar_t* name, const wchar_t* value);

template <typename FUNCTION>
FUNCTION* function_of(HMODULE runtime, const char* name) {
    return reinterpret_cast<FUNCTION*>(reinterpret_cast<void*>(::GetProcAddress(runtime, name)));
}

// Makes `handle` what the descriptor stands for in Python's runtime; the handle stays the caller's.
void set_descriptor_of_python(int descriptor, HANDLE handle) {
    const HMODULE runtime = ::GetModuleHandleW(L"ucrtbase.dll");
    const HANDLE process = ::GetCurrentProcess();
    HANDLE copy = nullptr;
    if (runtime == nullptr ||
        ::DuplicateHandle(process, handle, process, &copy, 0, TRUE, DUPLICATE_SAME_ACCESS) == 0) {
        return;
    }
    const int opened = function_of<OPEN_OSFHANDLE>(runtime, "_open_osfhandle")(
        reinterpret_cast<std::intptr_t>(copy), _O_BINARY);
    function_of<DUP2>(runtime, "_dup2")(opened, descriptor);
    function_of<CLOSE>(runtime, "_close")(opened);
}

std::wstring wide_name(const std::string& file) {
    std::wstring name = to_wide(file);
    for (wchar_t& letter : name) {
        if (letter == L'/') {
            letter = L'\\';
        }
    }
    return name;
}

HANDLE open_to_write(const std::wstring& name, DWORD disposition) {
    return ::CreateFileW(name.c_str(), GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Makes a new file beside `name` under a name that nothing else has.
HANDLE make_temporary_file(const std::wstring& name, std::wstring& temporary) {
    const std::size_t separator = name.find_last_of(L"\\:");
    const std::wstring folder =
        separator == std::wstring::npos ? std::wstring() : name.substr(0, separator + 1);
    std::random_device random;
    for (;;) {
        temporary =
            folder + L".pgm_python_" + std::to_wstring(random()) + L"_" + std::to_wstring(random());
        const HANDLE handle = open_to_write(temporary, CREATE_NEW);
        if (handle != INVALID_HANDLE_VALUE || ::GetLastError() != ERROR_FILE_EXISTS) {
            return handle;
        }
    }
}

// Gives the written file its name; what has the name hands on its permissions.
bool rename_over(const std::wstring& temporary, const std::wstring& name, bool exists) {
    if (exists && ::ReplaceFileW(name.c_str(), temporary.c_str(), nullptr,
                                 REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr, nullptr) != 0) {
        return true;
    }
    return ::MoveFileExW(temporary.c_str(), name.c_str(),
                         MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

std::string write_and_rename(const std::wstring& name, const unsigned char* bytes, std::size_t size,
                             bool exists) {
    std::wstring temporary;
    OWNED_HANDLE output(make_temporary_file(name, temporary));
    if (!output.is_open()) {
        return reason_of_system();
    }
    if (!write_all(output.get(), bytes, size) || ::FlushFileBuffers(output.get()) == 0 ||
        !output.close() || !rename_over(temporary, name, exists)) {
        std::string reason = reason_of_system();
        output.close();
        ::DeleteFileW(temporary.c_str());
        return reason;
    }
    return std::string();
}

// The name behind links.
std::wstring final_name(HANDLE handle, const std::wstring& name) {
    const std::wstring found = wide_text_from([handle](wchar_t* buffer, DWORD size) {
        return ::GetFinalPathNameByHandleW(handle, buffer, size, FILE_NAME_NORMALIZED);
    });
    return found.empty() ? name : found;
}

}  // namespace

namespace tool_platform {

std::vector<std::string> command_line(int /*argc*/, char** /*argv*/) {
    std::vector<std::string> texts;
    int count = 0;
    wchar_t** const wide = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    for (int index = 0; index < count; ++index) {
        texts.push_back(to_utf8(wide[index]));
    }
    ::LocalFree(wide);
    return texts;
}

// Older C runtimes have no locale for UTF-8.
void set_locale() {
    if (std::setlocale(LC_ALL, ".UTF-8") == nullptr) {
        std::setlocale(LC_ALL, "");
    }
}

// The library reads the system's own copy of the environment, Python that of its C runtime.
void set_environment(const std::string& name, const std::string& value) {
    const std::wstring wide = to_wide(name);
    ::SetEnvironmentVariableW(wide.c_str(), to_wide(value).c_str());
    const HMODULE runtime = ::GetModuleHandleW(L"ucrtbase.dll");
    if (runtime != nullptr) {
        function_of<WPUTENV>(runtime, "_wputenv_s")(wide.c_str(), to_wide(value).c_str());
    }
}

unsigned int mask_of_new_files() {
    return 0;
}

void set_mask_of_new_files(unsigned int /*mask*/) {}

bool standard_error_is_terminal() {
    return is_console(::GetStdHandle(STD_ERROR_HANDLE));
}

bool standard_output_is_terminal() {
    return is_console(results_handle());
}

std::string divert_standard_output() {
    if (standard_output != INVALID_HANDLE_VALUE) {
        return std::string();
    }
    const HANDLE process = ::GetCurrentProcess();
    const HANDLE errors = ::GetStdHandle(STD_ERROR_HANDLE);
    HANDLE kept = INVALID_HANDLE_VALUE;
    if (::DuplicateHandle(process, ::GetStdHandle(STD_OUTPUT_HANDLE), process, &kept, 0, FALSE,
                          DUPLICATE_SAME_ACCESS) == 0) {
        return reason_of_system();
    }
    standard_output = kept;
    ::_dup2(::_fileno(stderr), ::_fileno(stdout));
    constexpr int output_descriptor = 1;
    set_descriptor_of_python(output_descriptor, errors);
    ::SetStdHandle(STD_OUTPUT_HANDLE, errors);
    return std::string();
}

std::string write_to_standard_output(const void* bytes, std::size_t size, bool as_text) {
    const HANDLE output = results_handle();
    bool written = false;
    if (as_text) {
        std::string text;
        for (const char* next = static_cast<const char*>(bytes); size > 0; ++next, --size) {
            text += *next == '\n' ? std::string("\r\n") : std::string(1, *next);
        }
        written = write_all(output, text.data(), text.size());
    } else {
        written = write_all(output, bytes, size);
    }
    return written ? std::string() : reason_of_system();
}

std::FILE* open_input(const std::string& file, std::string& reason) {
    std::FILE* stream = nullptr;
    if (file == "-") {
        const int kept = ::_dup(::_fileno(stdin));
        const HANDLE nothing =
            ::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_EXISTING, 0, nullptr);
        if (kept >= 0 && nothing != INVALID_HANDLE_VALUE) {
            constexpr int input_descriptor = 0;
            set_descriptor_of_python(input_descriptor, nothing);
            ::SetStdHandle(STD_INPUT_HANDLE, nothing);
            ::_setmode(kept, _O_BINARY);
            stream = ::_fdopen(kept, "rb");
        }
    } else {
        stream = ::_wfopen(wide_name(file).c_str(), L"rb");
    }
    if (stream == nullptr) {
        reason = std::strerror(errno);
    }
    return stream;
}

// Permissions are those of the folder, or of the file that is replaced.
std::string write_file(const std::string& file, const unsigned char* bytes, std::size_t size,
                       SECRECY /*secrecy*/) {
    const std::wstring name = wide_name(file);
    OWNED_HANDLE opened(open_to_write(name, OPEN_EXISTING));
    if (!opened.is_open()) {
        return ::GetLastError() == ERROR_FILE_NOT_FOUND ? write_and_rename(name, bytes, size, false)
                                                        : reason_of_system();
    }
    if (::GetFileType(opened.get()) != FILE_TYPE_DISK) {
        return write_all(opened.get(), bytes, size) && opened.close() ? std::string()
                                                                      : reason_of_system();
    }
    const std::wstring target = final_name(opened.get(), name);
    opened.close();
    return write_and_rename(target, bytes, size, true);
}

std::string file_that_holds(const void* address) {
    HMODULE module = nullptr;
    if (::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<const wchar_t*>(address), &module) == 0) {
        return std::string();
    }
    return to_utf8(wide_text_from([module](wchar_t* buffer, DWORD size) {
        return ::GetModuleFileNameW(module, buffer, size);
    }));
}

// There is no forking here.
void leave_if_forked(int /*status*/) {}

}  // namespace tool_platform
