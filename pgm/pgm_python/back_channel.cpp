#include "pgm/pgm_python/back_channel.h"

#include <array>

#include "pgm/pgm_python/back_channel_socket.h"
#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/messages.h"

using namespace back_channel_socket;

namespace {

void unblock_socket(void* socket) {
    unblock(*static_cast<SOCKET_HANDLE*>(socket));
}

// A socket that is closed at the end of its scope.
class OWNED_SOCKET {
public:
    explicit OWNED_SOCKET(SOCKET_HANDLE socket) : m_socket(socket) {}
    ~OWNED_SOCKET() {
        if (valid()) {
            close_socket(m_socket);
        }
    }
    OWNED_SOCKET(const OWNED_SOCKET&) = delete;
    OWNED_SOCKET& operator=(const OWNED_SOCKET&) = delete;

    bool valid() const { return m_socket != invalid_socket; }
    SOCKET_HANDLE get() const { return m_socket; }

    // The first client; invalid when there is none or the thread is terminated.
    SOCKET_HANDLE accept() {
        const THR_BLOCKING_SCOPE scope(unblock_socket, &m_socket);
        return scope.terminated() ? invalid_socket : accept_client(m_socket);
    }

    // One chunk; its size, not positive when there is none or the thread is terminated.
    std::ptrdiff_t receive(char* buffer, std::size_t size) {
        const THR_BLOCKING_SCOPE scope(unblock_socket, &m_socket);
        return scope.terminated() ? 0 : back_channel_socket::receive(m_socket, buffer, size);
    }

private:
    SOCKET_HANDLE m_socket;
};

// Opens the latch at the end of its scope if nothing has done so before.
class SET_UP_NOTICE {
public:
    explicit SET_UP_NOTICE(LISTENER_LATCH* latch) : m_latch(latch) {}
    ~SET_UP_NOTICE() { give(); }
    SET_UP_NOTICE(const SET_UP_NOTICE&) = delete;
    SET_UP_NOTICE& operator=(const SET_UP_NOTICE&) = delete;

    void give() {
        if (m_latch != nullptr) {
            m_latch->open();
            m_latch = nullptr;
        }
    }

private:
    LISTENER_LATCH* m_latch;
};

// The listening socket for the address, bound but not yet listening; invalid when a call failed.
SOCKET_HANDLE open_bound_socket(const ADDRESS* address) {
    const SOCKET_HANDLE socket = open_socket(address);
    if (socket != invalid_socket && !(allow_address_reuse(socket) && bind_to(socket, address))) {
        close_socket(socket);
        return invalid_socket;
    }
    return socket;
}

// The listening socket; invalid when it cannot be had. The socket service is then left again,
// which a listener that has listened does not do.
SOCKET_HANDLE open_listening_socket() {
    if (!start_up()) {
        return invalid_socket;
    }
    SOCKET_HANDLE socket = invalid_socket;
    if (ADDRESS* const address = find_address(back_channel_node, back_channel_service)) {
        socket = open_bound_socket(address);
        free_address(address);
    }
    if (socket != invalid_socket && !start_listening(socket)) {
        close_socket(socket);
        socket = invalid_socket;
    }
    if (socket == invalid_socket) {
        clean_up();
    }
    return socket;
}

}  // namespace

void LISTENER_LATCH::open() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_opened.notify_all();
}

void LISTENER_LATCH::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_opened.wait(lock, [this] { return m_open; });
}

int listen_python_messages(void* handle) {
    require(handle != nullptr, {"handle != NULL", 237});
    PGM_PYTHON_LISTENER_DATA& data = *static_cast<PGM_PYTHON_LISTENER_DATA*>(handle);
    SET_UP_NOTICE set_up(data.set_up);
    OWNED_SOCKET listener(open_listening_socket());
    if (!listener.valid()) {
        return 0;
    }
    set_up.give();
    OWNED_SOCKET client(listener.accept());
    if (client.valid()) {
        std::array<char, back_channel_limit + 1> buffer = {};
        const std::ptrdiff_t count = client.receive(buffer.data(), back_channel_limit);
        if (count > 0) {
            data.text.assign(buffer.data(), static_cast<std::size_t>(count));
            data.received = true;
        }
        shut_down_sending(client.get());
    }
    return 0;
}

BACK_CHANNEL::~BACK_CHANNEL() {
    thr_thread_terminate_and_possibly_crash(m_thread);
}

void BACK_CHANNEL::start() {
    m_data.received = false;
    m_data.text.clear();
    m_data.set_up = &m_set_up;
    m_thread = thr_thread_create(listen_python_messages, &m_data, 0);
    if (m_thread != nullptr) {
        m_set_up.wait();
    }
}

void BACK_CHANNEL::complete(bool success, const std::string& function, const std::string& file) {
    complete_python_call(success, &m_thread, &m_data, function, file);
}
