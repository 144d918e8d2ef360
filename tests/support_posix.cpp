#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support.h"

namespace {

constexpr std::uint16_t port = 57343;

sockaddr_in address(std::uint32_t host, unsigned int of_port = port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(of_port));
    result.sin_addr.s_addr = htonl(host);
    return result;
}

int count_entries(const char* folder) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

// A value of the process's status in bytes; negative when it is not there.
long long status_value(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == name) {
            long long kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    }
    return -1;
}

int new_socket() {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// Binds as server programs do: addresses of connections that are long over do not matter.
bool bind_and_listen(int socket) {
    const int reuse = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const sockaddr_in any = address(INADDR_ANY);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 &&
           ::listen(socket, 1) == 0;
}

std::string contents(std::FILE* file) {
    std::string text;
    std::rewind(file);
    char buffer[4096];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
    }
    std::fclose(file);
    return text;
}

}  // namespace

ENVIRONMENT_VALUE::ENVIRONMENT_VALUE(const std::string& name, const char* value) : m_name(name) {
    const char* const before = std::getenv(name.c_str());
    m_was_set = before != nullptr;
    m_before = m_was_set ? before : "";
    if (value == nullptr) {
        ::unsetenv(name.c_str());
    } else {
        ::setenv(name.c_str(), value, 1);
    }
}

ENVIRONMENT_VALUE::~ENVIRONMENT_VALUE() {
    if (m_was_set) {
        ::setenv(m_name.c_str(), m_before.c_str(), 1);
    } else {
        ::unsetenv(m_name.c_str());
    }
}

void warm_up_workers() {}

int count_of_threads() {
    return count_entries("/proc/self/task");
}

int count_of_open_handles() {
    return count_entries("/proc/self/fd");
}

int count_of_sockets() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;  // the folder itself is open while it is read
        const std::string target = std::filesystem::read_symlink(entry, closed).string();
        count += target.compare(0, 7, "socket:") == 0 ? 1 : 0;
    }
    return count;
}

int count_of_listeners_on_every_interface() {
    std::set<std::string> own;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        own.insert(std::filesystem::read_symlink(entry, closed).string());
    }
    int count = 0;
    std::ifstream table("/proc/self/net/tcp");
    std::string row;
    while (std::getline(table, row)) {
        std::istringstream words(row);
        std::vector<std::string> columns;
        for (std::string column; words >> column;) {
            columns.push_back(column);
        }
        constexpr std::size_t local = 1;
        constexpr std::size_t state = 3;
        constexpr std::size_t inode = 9;
        if (columns.size() > inode && columns[state] == "0A" &&
            columns[local].compare(0, 9, "00000000:") == 0) {
            count += own.count("socket:[" + columns[inode] + "]") != 0 ? 1 : 0;
        }
    }
    return count;
}

bool platform_can_fork() {
    return true;
}

// The sanitizers keep memory of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
long long resident_memory() {
    return -1;
}

PEAK_MEMORY::PEAK_MEMORY() : m_before(-1) {}
#else
long long resident_memory() {
    return status_value("VmRSS:");
}

PEAK_MEMORY::PEAK_MEMORY() {
    constexpr char begin_anew = '5';
    std::ofstream references("/proc/self/clear_refs");
    m_before = (references << begin_anew << std::flush) ? status_value("VmRSS:") : -1;
}
#endif

long long PEAK_MEMORY::growth() const {
    return m_before < 0 ? -1 : status_value("VmHWM:") - m_before;
}

bool port_is_free() {
    return PORT_HOLDER().holds();
}

PORT_HOLDER::PORT_HOLDER() {
    const int socket = new_socket();
    m_socket = static_cast<std::size_t>(socket);
    m_holds = bind_and_listen(socket);
}

PORT_HOLDER::~PORT_HOLDER() {
    ::close(static_cast<int>(m_socket));
}

BACKLOG backlog() {
    BACKLOG result = {-1, -1};
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int socket = std::stoi(entry.path().filename().string());
        int listens = 0;
        socklen_t size = sizeof listens;
        tcp_info state = {};
        if (::getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0) {
            size = sizeof state;
            if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &state, &size) == 0) {
                result.listening = state.tcpi_sacked;  // of a listening socket, the backlog
            }
        }
    }
    long long most = -1;
    std::ifstream("/proc/sys/net/core/somaxconn") >> most;
    result.most = std::min<long long>(most, SOMAXCONN);
    return result;
}

namespace {

// A client that a silent other side does not hold up for good.
int new_client_socket() {
    const int socket = new_socket();
    const timeval limit = {10, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return socket;
}

}  // namespace

CLIENT::CLIENT(const std::string& announced) {
    const sockaddr_in local = address(INADDR_LOOPBACK, port_of(announced));
    const int socket = new_client_socket();
    m_socket = static_cast<std::size_t>(socket);
    m_connected = ::connect(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
    // Where nobody listens the system may connect a socket to itself.
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size);
    m_connected = m_connected && own.sin_port != local.sin_port;
}

CLIENT::CLIENT(std::uint32_t address) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    const sockaddr_in local = ::address(address);
    for (;;) {
        const int socket = new_client_socket();
        m_socket = static_cast<std::size_t>(socket);
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) {
            m_connected = true;
            return;
        }
        if (std::chrono::steady_clock::now() > limit) {
            return;
        }
        ::close(socket);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

CLIENT::~CLIENT() {
    ::close(static_cast<int>(m_socket));
}

void CLIENT::send(const std::string& text) const {
    EXPECT_EQ(::send(static_cast<int>(m_socket), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
}

bool CLIENT::tries_to_send(const std::string& text) const {
    return ::send(static_cast<int>(m_socket), text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

void CLIENT::shut_down_sending() const {
    ::shutdown(static_cast<int>(m_socket), SHUT_WR);
}

bool CLIENT::sees_silent_end() const {
    char byte;
    return ::recv(static_cast<int>(m_socket), &byte, 1, 0) == 0;
}

bool CLIENT::sees_end_or_reset() const {
    char byte;
    const ssize_t count = ::recv(static_cast<int>(m_socket), &byte, 1, 0);
    return count == 0 || (count < 0 && errno == ECONNRESET);
}

bool CLIENT::sees_break_off() const {
    char byte;
    return ::recv(static_cast<int>(m_socket), &byte, 1, 0) < 0 && errno == ECONNRESET;
}

std::string utf8_output_setting() {
    return "LC_ALL=C.UTF-8";
}

bool environment_tells_locale() {
    return true;
}

PROGRAM_RESULT run_program(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment) {
    std::FILE* const output = std::tmpfile();
    std::FILE* const errors = std::tmpfile();
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open("/dev/null", O_RDONLY), 0);
        ::dup2(::fileno(output), 1);
        ::dup2(::fileno(errors), 2);
        for (const std::string& entry : environment) {
            const std::size_t sign = entry.find('=');
            ::setenv(entry.substr(0, sign).c_str(), entry.substr(sign + 1).c_str(), 1);
        }
        std::vector<char*> argv = {const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        ::execvp(program.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const std::string bytes = contents(output);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), bytes,
            contents(errors), bytes};
}
