#include <windows.h>
#include <winsock2.h>

#include <io.h>
#include <psapi.h>
#include <tlhelp32.h>
#include <ws2tcpip.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "tests/pythons_runtime_windows.h"
#include "tests/support.h"
#include "zel/zel_fio/fio_text_windows.h"

namespace {

constexpr std::uint16_t port = 57343;

// The sockets below need the service even where no listener has entered it.
const bool sockets_started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

sockaddr_in address(std::uint32_t host, unsigned int of_port = port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(of_port));
    result.sin_addr.s_addr = htonl(host);
    return result;
}

SOCKET new_socket() {
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
    return socket;
}

// Binds so that nobody else can, and only where nobody else has.
bool bind_and_listen(SOCKET socket) {
    const int exclusive = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive),
                 sizeof exclusive);
    const sockaddr_in any = address(INADDR_ANY);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 &&
           ::listen(socket, 1) == 0;
}

typedef int __cdecl WPUTENV_S(const wchar_t* name, const wchar_t* value);

// An empty value unsets, except where only the system itself is asked.
void set_environment_value(const std::string& name, const char* value) {
    static WPUTENV_S* const put_for_python = of_pythons_runtime<WPUTENV_S>("_wputenv_s");
    const std::wstring wide_name = to_wide(name);
    const std::wstring wide_value = to_wide(value == nullptr ? "" : value);
    ::_wputenv_s(wide_name.c_str(), wide_value.c_str());
    put_for_python(wide_name.c_str(), wide_value.c_str());
    ::SetEnvironmentVariableW(wide_name.c_str(), value == nullptr ? nullptr : wide_value.c_str());
}

// The handles of the process in Wine's list of those of all processes; negative where that cannot
// be read. What Wine tells of a single process is 0.
int count_of_listed_handles() {
    struct LIST {
        ULONG count;
        struct {
            ULONG process;
            BYTE type;
            BYTE flags;
            USHORT value;
            void* object;
            ULONG access;
        } handles[1];
    };
    typedef LONG(WINAPI * QUERY)(int kind, void* buffer, ULONG size, ULONG* needed);
    const auto query = reinterpret_cast<QUERY>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    constexpr int list_of_handles = 16;
    std::vector<unsigned char> buffer(4 * 1024 * 1024);
    ULONG needed = 0;
    if (query == nullptr ||
        query(list_of_handles, buffer.data(), static_cast<ULONG>(buffer.size()), &needed) != 0) {
        return -1;
    }
    const LIST* const list = reinterpret_cast<const LIST*>(buffer.data());
    int own = 0;
    for (ULONG index = 0; index < list->count; ++index) {
        own += list->handles[index].process == ::GetCurrentProcessId() ? 1 : 0;
    }
    return own;
}

// One argument as the receiving program takes command lines apart.
std::wstring quoted(const std::wstring& argument) {
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t letter : argument) {
        if (letter == L'\\') {
            ++backslashes;
            continue;
        }
        text.append(letter == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        text += letter;
        backslashes = 0;
    }
    text.append(2 * backslashes, L'\\');
    return text + L"\"";
}

struct NAME_ORDER {
    bool operator()(const std::wstring& one, const std::wstring& other) const {
        return ::_wcsicmp(one.c_str(), other.c_str()) < 0;
    }
};

// The environment with the entries (NAME=VALUE) put in, as a process is given it.
std::wstring environment_block(const std::vector<std::string>& entries) {
    std::map<std::wstring, std::wstring, NAME_ORDER> values;
    const auto put = [&values](const std::wstring& entry) {
        const std::size_t sign = entry.find(L'=', 1);
        values[entry.substr(0, sign)] = entry.substr(sign + 1);
    };
    wchar_t* const own = ::GetEnvironmentStringsW();
    for (const wchar_t* entry = own; *entry != L'\0'; entry += std::wcslen(entry) + 1) {
        put(entry);
    }
    ::FreeEnvironmentStringsW(own);
    for (const std::string& entry : entries) {
        put(to_wide(entry));
    }
    std::wstring block;
    for (const auto& value : values) {
        block += value.first + L"=" + value.second;
        block += L'\0';
    }
    return block + L'\0';
}

// A stream of a program that is run, read to its end beside the other ones.
class PROGRAM_STREAM {
public:
    PROGRAM_STREAM() {
        ::CreatePipe(&m_read, &for_the_program, nullptr, 0);
        ::SetHandleInformation(for_the_program, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
    void start_reading() {
        ::CloseHandle(for_the_program);
        m_reader = std::thread([this] {
            char buffer[4096];
            DWORD count = 0;
            while (::ReadFile(m_read, buffer, sizeof buffer, &count, nullptr) && count > 0) {
                m_text.append(buffer, count);
            }
        });
    }
    // Waits until the program has closed the stream and gives what it wrote.
    const std::string& finish_reading() {
        m_reader.join();
        ::CloseHandle(m_read);
        return m_text;
    }
    // What was written, with line ends as the program meant them.
    std::string text() const {
        std::string text;
        for (std::size_t at = 0; at < m_text.size(); ++at) {
            if (m_text.compare(at, 2, "\r\n") != 0) {
                text += m_text[at];
            }
        }
        return text;
    }

    HANDLE for_the_program = nullptr;

private:
    HANDLE m_read = nullptr;
    std::thread m_reader;
    std::string m_text;
};

}  // namespace

ENVIRONMENT_VALUE::ENVIRONMENT_VALUE(const std::string& name, const char* value) : m_name(name) {
    const std::wstring wide_name = to_wide(name);
    ::SetLastError(ERROR_SUCCESS);
    m_was_set = ::GetEnvironmentVariableW(wide_name.c_str(), nullptr, 0) != 0 ||
                ::GetLastError() != ERROR_ENVVAR_NOT_FOUND;
    m_before = to_utf8(wide_text_from([&wide_name](wchar_t* buffer, DWORD size) {
        return ::GetEnvironmentVariableW(wide_name.c_str(), buffer, size);
    }));
    set_environment_value(name, value);
}

ENVIRONMENT_VALUE::~ENVIRONMENT_VALUE() {
    set_environment_value(m_name, m_was_set ? m_before.c_str() : nullptr);
}

void warm_up_workers() {
    static bool done = false;
    if (!done) {
        done = true;
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
        PGM_PYTHON_SETTINGS::set_worker(PGM_PYTHON_PROGRAMS "/pgm_python_worker.exe");
        const char* code[] = {"-c", "pass"};
        PGM_PYTHON_MGR::run_python_file(2, code);
        PGM_PYTHON_SETTINGS::use_environment();
    }
}

int count_of_threads() {
    int count = 0;
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Thread32First(snapshot, &entry); more;
         more = ::Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == ::GetCurrentProcessId() ? 1 : 0;
    }
    ::CloseHandle(snapshot);
    return count;
}

int count_of_open_handles() {
    DWORD count = 0;
    if (!::GetProcessHandleCount(::GetCurrentProcess(), &count)) {
        return -1;
    }
    return count > 0 ? static_cast<int>(count) : count_of_listed_handles();
}

// Not told: a socket is a handle like others.
int count_of_sockets() {
    return -1;
}

int count_of_listeners_on_every_interface() {
    return -1;
}

bool platform_can_fork() {
    return false;
}

long long resident_memory() {
    PROCESS_MEMORY_COUNTERS counters = {};
    return ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters) != 0
               ? static_cast<long long>(counters.WorkingSetSize)
               : -1;
}

PEAK_MEMORY::PEAK_MEMORY() {
    constexpr SIZE_T risen_before = 16 * 1024 * 1024;
    PROCESS_MEMORY_COUNTERS counters = {};
    const bool known =
        ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters) != 0 &&
        counters.PeakWorkingSetSize < counters.WorkingSetSize + risen_before;
    m_before = known ? static_cast<long long>(counters.WorkingSetSize) : -1;
}

long long PEAK_MEMORY::growth() const {
    PROCESS_MEMORY_COUNTERS counters = {};
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
    return m_before < 0 ? -1 : static_cast<long long>(counters.PeakWorkingSetSize) - m_before;
}

bool port_is_free() {
    return PORT_HOLDER().holds();
}

PORT_HOLDER::PORT_HOLDER() {
    m_socket = new_socket();
    m_holds = sockets_started && bind_and_listen(m_socket);
}

PORT_HOLDER::~PORT_HOLDER() {
    ::closesocket(m_socket);
}

BACKLOG backlog() {
    return {-1, -1};
}

namespace {

// A client that a silent other side does not hold up for good.
SOCKET new_client_socket() {
    const SOCKET socket = new_socket();
    const DWORD limit_ms = 10000;
    const char* const limit = reinterpret_cast<const char*>(&limit_ms);
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, limit, sizeof limit_ms);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, limit, sizeof limit_ms);
    return socket;
}

}  // namespace

CLIENT::CLIENT(const std::string& announced) : m_socket(new_client_socket()) {
    const sockaddr_in local = address(INADDR_LOOPBACK, port_of(announced));
    m_connected = ::connect(m_socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
    // Where nobody listens the system may connect a socket to itself.
    sockaddr_in own = {};
    int size = sizeof own;
    ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&own), &size);
    m_connected = m_connected && own.sin_port != local.sin_port;
}

CLIENT::CLIENT(std::uint32_t address) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    const sockaddr_in local = ::address(address);
    for (;;) {
        m_socket = new_client_socket();
        if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) {
            m_connected = true;
            return;
        }
        if (std::chrono::steady_clock::now() > limit) {
            return;
        }
        ::closesocket(m_socket);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

CLIENT::~CLIENT() {
    ::closesocket(m_socket);
}

void CLIENT::send(const std::string& text) const {
    const int size = static_cast<int>(text.size());
    EXPECT_EQ(::send(m_socket, text.data(), size, 0), size);
}

bool CLIENT::tries_to_send(const std::string& text) const {
    const int size = static_cast<int>(text.size());
    return ::send(m_socket, text.data(), size, 0) == size;
}

void CLIENT::shut_down_sending() const {
    ::shutdown(m_socket, SD_SEND);
}

bool CLIENT::sees_silent_end() const {
    char byte;
    return ::recv(m_socket, &byte, 1, 0) == 0;
}

bool CLIENT::sees_end_or_reset() const {
    char byte;
    const int count = ::recv(m_socket, &byte, 1, 0);
    return count == 0 || (count == SOCKET_ERROR && ::WSAGetLastError() == WSAECONNRESET);
}

bool CLIENT::sees_break_off() const {
    return sees_end_or_reset();
}

std::string utf8_output_setting() {
    return "PYTHONIOENCODING=utf-8";
}

bool environment_tells_locale() {
    return false;
}

PROGRAM_RESULT run_program(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment) {
    std::wstring command =
        quoted(to_wide(std::filesystem::u8path(program).make_preferred().u8string()));
    for (const std::string& argument : arguments) {
        command += L" " + quoted(to_wide(argument));
    }
    std::wstring block = environment_block(environment);
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    const HANDLE input = ::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                       &inherited, OPEN_EXISTING, 0, nullptr);
    PROGRAM_STREAM output;
    PROGRAM_STREAM errors;
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = input;
    start.hStdOutput = output.for_the_program;
    start.hStdError = errors.for_the_program;
    PROCESS_INFORMATION process = {};
    const bool started =
        ::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                         &block[0], nullptr, &start, &process) != 0;
    ::CloseHandle(input);
    output.start_reading();
    errors.start_reading();
    DWORD status = 127;
    if (started) {
        ::WaitForSingleObject(process.hProcess, INFINITE);
        ::GetExitCodeProcess(process.hProcess, &status);
        ::CloseHandle(process.hThread);
        ::CloseHandle(process.hProcess);
    }
    const std::string output_bytes = output.finish_reading();
    errors.finish_reading();
    return {static_cast<int>(status), output.text(), errors.text(), output_bytes};
}
