// The listener, by way of a real socket: whatever a client sends in whatever segments, and however
// the exchange ends.
//
// Input: a byte that says how it ends (ENDING), then segments: a byte (1: the client waits a little
// after it), a byte (the segment's size in units of 16), the segment's bytes.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "pgm/pgm_python/back_channel.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

enum ENDING : std::size_t {
    // The client closes, or shuts its sending side down, and the listener is waited for.
    closes,
    shuts_down,
    // The client breaks the connection off.
    breaks_off,
    // The listener is terminated while the client holds on, or while there is none.
    terminated_with_client,
    terminated_without_client,
    // The client connects and closes before it has sent anything.
    says_nothing,
    endings,
};

std::ptrdiff_t entries_of(const char* folder) {
    const std::filesystem::directory_iterator begin(folder);
    return std::distance(begin, std::filesystem::directory_iterator());
}

// Entries as before; a thread that has been waited for may be seen a little longer.
bool are_back(const char* folder, std::ptrdiff_t before) {
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
    FUZZ_CLIENT() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        static std::uint32_t clients = 0;
        const int yes = 1;
        sockaddr_in own = address(0x7F000001U + ++clients % 0xFFFFFEU, 0);
        const sockaddr_in host = address(INADDR_LOOPBACK, 57343);
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

std::vector<SEGMENT> segments_of(FUZZ_INPUT& input) {
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

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool first_thread_made = [] {
        std::thread([] {}).join();  // what the process keeps of its first thread is there now
        return true;
    }();
    MUST_HOLD(first_thread_made);
    FUZZ_INPUT input(data, size);
    const std::size_t ending = input.below(endings);
    const std::vector<SEGMENT> segments = segments_of(input);
    const std::ptrdiff_t threads = entries_of("/proc/self/task");
    const std::ptrdiff_t descriptors = entries_of("/proc/self/fd");

    FUZZ_RECEIVER receiver;
    LISTENER_LATCH listening;
    PGM_PYTHON_LISTENER_DATA kept;
    kept.set_up = &listening;
    std::string sent;
    THR_THREAD thread = thr_thread_create(listen_python_messages, &kept, 0);
    MUST_HOLD(thread != nullptr);
    listening.wait();
    if (ending == terminated_without_client) {
        thr_thread_terminate_and_possibly_crash(thread);
    } else {
        FUZZ_CLIENT client;
        for (const SEGMENT& segment : segments) {
            if (ending == says_nothing) {
                break;
            }
            client.send(segment.bytes);
            sent += segment.bytes;
            if (segment.waits) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        if (ending == terminated_with_client) {
            thr_thread_terminate_and_possibly_crash(thread);
        } else {
            if (ending == breaks_off) {
                client.break_off();
            } else if (ending == shuts_down) {
                client.shut_down();
            } else {
                client.close();
            }
            thr_thread_wait(thread);
        }
    }

    MUST_HOLD(kept.received == !kept.text.empty());
    MUST_HOLD(kept.text.size() <= 2048);
    MUST_HOLD(sent.compare(0, kept.text.size(), kept.text) == 0);
    if ((ending == closes || ending == shuts_down) && !sent.empty()) {
        MUST_HOLD(!kept.text.empty());
    }
    MUST_HOLD(receiver.errors.empty());
    MUST_HOLD(receiver.posts.empty());
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(are_back("/proc/self/task", threads));
    MUST_HOLD(are_back("/proc/self/fd", descriptors));
    return 0;
}
