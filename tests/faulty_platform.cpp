#include "tests/faulty_platform.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "pgm/pgm_python/back_channel_socket.h"
#include "zel/zel_thr/thr_platform.h"

// The platform's own calls: this program compiles their files with these names for the namespaces.
#undef PGM_PGM_PYTHON_BACK_CHANNEL_SOCKET_H
#undef ZEL_ZEL_THR_THR_PLATFORM_H
#define back_channel_socket own_back_channel_socket
#define thr_platform own_thr_platform
#include "pgm/pgm_python/back_channel_socket.h"
#include "zel/zel_thr/thr_platform.h"
#undef back_channel_socket
#undef thr_platform

namespace faulty_platform {

namespace {

constexpr std::array<const char*, number_of_calls> names = {
    "start_thread",    "fill_with_random_bytes",
    "start_up",        "find_address",
    "open_socket",     "allow_address_reuse",
    "keep_address",    "bind_to",
    "start_listening", "port_of",
    "open_waker",      "wait",
    "accept_client",   "receive"};

std::size_t index_of(CALL call) {
    return static_cast<std::size_t>(call);
}

// Called by listeners on their threads and by tests on theirs.
class RECORD {
public:
    void begin_anew() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_counts = {};
        m_failing = {};
        m_failures = 0;
        m_clean_ups = 0;
        m_shut_downs = 0;
        m_break_offs = 0;
        m_misuse.clear();
    }

    void make_fail(CALL call, int nth) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_failing[index_of(call)] = m_counts[index_of(call)] + nth;
    }

    // Counts a call and tells whether it is to fail.
    bool fails(CALL call) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool failing = ++m_counts[index_of(call)] == m_failing[index_of(call)];
        m_failures += failing ? 1 : 0;
        return failing;
    }

    int count_of(CALL call) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_counts[index_of(call)];
    }

    // Reads or changes what follows under the lock.
    template <typename ACTION>
    auto locked(const ACTION& action) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return action(*this);
    }

    void expect(bool condition, const char* text) {
        if (!condition) {
            m_misuse += std::string(text) + "\n";
        }
    }
    void expect_open(back_channel_socket::SOCKET_HANDLE socket, const char* call) {
        if (m_sockets.count(socket) == 0) {
            m_misuse += std::string(call) + " on a socket that is not open\n";
        }
    }

    int m_failures = 0;
    int m_clean_ups = 0;
    int m_shut_downs = 0;
    int m_break_offs = 0;
    int m_addresses = 0;
    int m_threads = 0;
    std::set<back_channel_socket::SOCKET_HANDLE> m_sockets;
    std::string m_misuse;
    std::string m_received_into;

private:
    mutable std::mutex m_mutex;
    std::array<int, number_of_calls> m_counts = {};
    std::array<int, number_of_calls> m_failing = {};
};

RECORD record;

void check_open(back_channel_socket::SOCKET_HANDLE socket, const char* call) {
    record.locked([&](RECORD& all) { all.expect_open(socket, call); });
}

back_channel_socket::SOCKET_HANDLE noted(back_channel_socket::SOCKET_HANDLE socket) {
    if (socket != back_channel_socket::invalid_socket &&
        socket != back_channel_socket::no_client_yet) {
        record.locked([&](RECORD& all) { all.m_sockets.insert(socket); });
    }
    return socket;
}

void add(std::string& text, std::size_t number, const char* what) {
    if (number != 0) {
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + what;
    }
}

}  // namespace

const char* name_of(CALL call) {
    // cppcheck-suppress CastIntegerToAddressAtReturn
    return names[index_of(call)];
}

void PrintTo(CALL call, std::ostream* stream) {
    *stream << name_of(call);
}

void begin_anew() {
    record.begin_anew();
}

void make_fail(CALL call, int nth) {
    record.make_fail(call, nth);
}

int count_of(CALL call) {
    return record.count_of(call);
}

int count_of_failures() {
    return record.locked([](RECORD& all) { return all.m_failures; });
}

int count_of_clean_ups() {
    return record.locked([](RECORD& all) { return all.m_clean_ups; });
}

int count_of_shut_downs() {
    return record.locked([](RECORD& all) { return all.m_shut_downs; });
}

int count_of_break_offs() {
    return record.locked([](RECORD& all) { return all.m_break_offs; });
}

std::string held() {
    return record.locked([](RECORD& all) {
        std::string text;
        add(text, static_cast<std::size_t>(all.m_addresses), "addresses");
        add(text, all.m_sockets.size(), "sockets");
        add(text, static_cast<std::size_t>(all.m_threads), "threads");
        return text;
    });
}

std::string misuse() {
    return record.locked([](RECORD& all) { return all.m_misuse; });
}

bool received_into_zeros(std::size_t size) {
    return record.locked(
        [&](RECORD& all) { return all.m_received_into == std::string(size, '\0'); });
}

}  // namespace faulty_platform

using faulty_platform::CALL;
using faulty_platform::RECORD;
using faulty_platform::record;

namespace back_channel_socket {

struct ADDRESS {
    own_back_channel_socket::ADDRESS* own;
};

bool start_up() {
    return !record.fails(CALL::start_up) && own_back_channel_socket::start_up();
}

void clean_up() {
    record.locked([](RECORD& all) { ++all.m_clean_ups; });
    own_back_channel_socket::clean_up();
}

ADDRESS* find_address(const char* node, const char* service) {
    if (record.fails(CALL::find_address)) {
        return nullptr;
    }
    own_back_channel_socket::ADDRESS* const own =
        own_back_channel_socket::find_address(node, service);
    if (own == nullptr) {
        return nullptr;
    }
    record.locked([](RECORD& all) { ++all.m_addresses; });
    return new ADDRESS{own};
}

void free_address(ADDRESS* address) {
    record.locked([](RECORD& all) { --all.m_addresses; });
    own_back_channel_socket::free_address(address->own);
    delete address;
}

SOCKET_HANDLE open_socket(const ADDRESS* address) {
    return record.fails(CALL::open_socket)
               ? invalid_socket
               : faulty_platform::noted(own_back_channel_socket::open_socket(address->own));
}

bool allow_address_reuse(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "allow_address_reuse");
    return !record.fails(CALL::allow_address_reuse) &&
           own_back_channel_socket::allow_address_reuse(socket);
}

bool keep_address(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "keep_address");
    return !record.fails(CALL::keep_address) && own_back_channel_socket::keep_address(socket);
}

bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address) {
    faulty_platform::check_open(socket, "bind_to");
    return !record.fails(CALL::bind_to) && own_back_channel_socket::bind_to(socket, address->own);
}

bool start_listening(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "start_listening");
    return !record.fails(CALL::start_listening) && own_back_channel_socket::start_listening(socket);
}

unsigned int port_of(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "port_of");
    return record.fails(CALL::port_of) ? 0 : own_back_channel_socket::port_of(socket);
}

bool fill_with_random_bytes(unsigned char* buffer, std::size_t size) {
    return !record.fails(CALL::fill_with_random_bytes) &&
           own_back_channel_socket::fill_with_random_bytes(buffer, size);
}

SOCKET_HANDLE accept_client(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "accept_client");
    return record.fails(CALL::accept_client)
               ? invalid_socket
               : faulty_platform::noted(own_back_channel_socket::accept_client(socket));
}

std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size) {
    faulty_platform::check_open(socket, "receive");
    record.locked([&](RECORD& all) { all.m_received_into.assign(buffer, size); });
    return record.fails(CALL::receive) ? -1
                                       : own_back_channel_socket::receive(socket, buffer, size);
}

void shut_down_sending(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "shut_down_sending");
    record.locked([](RECORD& all) { ++all.m_shut_downs; });
    own_back_channel_socket::shut_down_sending(socket);
}

// Off the record first: the system may give the number to another socket at once.
void close_socket(SOCKET_HANDLE socket) {
    record.locked([&](RECORD& all) {
        all.expect_open(socket, "close_socket");
        all.m_sockets.erase(socket);
    });
    own_back_channel_socket::close_socket(socket);
}

void stop_listening(SOCKET_HANDLE socket) {
    faulty_platform::check_open(socket, "stop_listening");
    own_back_channel_socket::stop_listening(socket);
}

void break_off(SOCKET_HANDLE socket) {
    record.locked([&](RECORD& all) {
        all.expect_open(socket, "break_off");
        all.m_sockets.erase(socket);
        ++all.m_break_offs;
    });
    own_back_channel_socket::break_off(socket);
}

SOCKET_HANDLE open_waker() {
    return record.fails(CALL::open_waker)
               ? invalid_socket
               : faulty_platform::noted(own_back_channel_socket::open_waker());
}

void wake_up(SOCKET_HANDLE waker) {
    faulty_platform::check_open(waker, "wake_up");
    own_back_channel_socket::wake_up(waker);
}

bool wait(WAITED* sockets, std::size_t count, bool blocks) {
    std::vector<own_back_channel_socket::WAITED> waited;
    for (std::size_t index = 0; index < count; ++index) {
        faulty_platform::check_open(sockets[index].socket, "wait");
        waited.push_back({sockets[index].socket, false});
    }
    if (record.fails(CALL::wait)) {
        return false;
    }
    const bool success = own_back_channel_socket::wait(waited.data(), count, blocks);
    for (std::size_t index = 0; index < count; ++index) {
        sockets[index].ready = waited[index].ready;
    }
    return success;
}

}  // namespace back_channel_socket

namespace thr_platform {

struct SYSTEM_THREAD {
    own_thr_platform::SYSTEM_THREAD* own;
};

SYSTEM_THREAD* start(THR_THREAD_STATE* state) {
    own_thr_platform::SYSTEM_THREAD* const own =
        record.fails(CALL::start_thread) ? nullptr : own_thr_platform::start(state);
    if (own == nullptr) {
        return nullptr;
    }
    record.locked([](RECORD& all) { ++all.m_threads; });
    return new SYSTEM_THREAD{own};
}

void join(SYSTEM_THREAD* thread) {
    own_thr_platform::join(thread->own);
    delete thread;
    record.locked([](RECORD& all) { --all.m_threads; });
}

void kill(SYSTEM_THREAD* thread) {
    record.locked([](RECORD& all) { all.expect(false, "a thread was ended by force"); });
    own_thr_platform::kill(thread->own);
}

void abandon(SYSTEM_THREAD* thread) {
    record.locked([](RECORD& all) { all.expect(false, "a thread was let go"); });
    own_thr_platform::abandon(thread->own);
    delete thread;
}

}  // namespace thr_platform
