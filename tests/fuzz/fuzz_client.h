// What the fuzz targets of the listener have in common: a client, what it sends, and looks at the
// process.

#ifndef TESTS_FUZZ_FUZZ_CLIENT_H
#define TESTS_FUZZ_FUZZ_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/fuzz/fuzz_support.h"

inline std::ptrdiff_t entries_of(const char* folder) {
    const std::filesystem::directory_iterator begin(folder);
    return std::distance(begin, std::filesystem::directory_iterator());
}

// Has what the process keeps of its first thread be there before anything is counted.
inline void make_first_thread() {
    static const bool made = [] {
        std::thread([] {}).join();
        return true;
    }();
    MUST_HOLD(made);
}

// Entries as before; a thread that has been waited for may be seen a little longer.
inline bool are_back(const char* folder, std::ptrdiff_t before) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (entries_of(folder) != before) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

// A client; each connects from another address, so that ports do not run out.
class FUZZ_CLIENT {
public:
    explicit FUZZ_CLIENT(unsigned int port)
        : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        static std::uint32_t clients = 0;
        const int yes = 1;
        sockaddr_in own = address(0x7F000001U + ++clients % 0xFFFFFEU, 0);
        const sockaddr_in host = address(INADDR_LOOPBACK, static_cast<std::uint16_t>(port));
        MUST_HOLD(::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes) == 0);
        MUST_HOLD(::bind(m_socket, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0);
        MUST_HOLD(::connect(m_socket, reinterpret_cast<const sockaddr*>(&host), sizeof host) == 0);
    }
    ~FUZZ_CLIENT() { close(); }
    FUZZ_CLIENT(const FUZZ_CLIENT&) = delete;
    FUZZ_CLIENT& operator=(const FUZZ_CLIENT&) = delete;

    // The listener goes after its first segment; what is sent to nobody is an error here.
    void send(const std::string& segment) {
        ::send(m_socket, segment.data(), segment.size(), MSG_NOSIGNAL);
    }
    void shut_down() { ::shutdown(m_socket, SHUT_WR); }
    void break_off() {
        const linger at_once = {1, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }
    void close() {
        if (m_socket >= 0) {
            ::close(m_socket);
            m_socket = -1;
        }
    }

private:
    static sockaddr_in address(std::uint32_t host, std::uint16_t port) {
        sockaddr_in result = {};
        result.sin_family = AF_INET;
        result.sin_addr.s_addr = htonl(host);
        result.sin_port = htons(port);
        return result;
    }

    int m_socket;
};

struct SEGMENT {
    bool waits;
    std::string bytes;
};

// A segment: a byte (1: the client waits a little after it), a byte (its size in units of 16),
// bytes.
inline std::vector<SEGMENT> segments_of(FUZZ_INPUT& input) {
    std::vector<SEGMENT> segments;
    while (!input.ended() && segments.size() < 20) {
        const bool waits = input.byte() == 1;
        const std::size_t size = 16 * input.byte();
        std::string bytes;
        while (bytes.size() < size && !input.ended()) {
            bytes += static_cast<char>(input.byte());
        }
        // A long segment needs no long input.
        bytes.resize(size, static_cast<char>(segments.size()));
        segments.push_back({waits, bytes});
    }
    return segments;
}

#endif
