#include "pgm/pgm_python/back_channel.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>
#include <vector>

#include "pgm/pgm_python/announced_text.h"
#include "pgm/pgm_python/back_channel_socket.h"
#include "pgm/pgm_python/messages.h"

using namespace back_channel_socket;

namespace {

// A socket that is closed at the end of its scope.
class OWNED_SOCKET {
public:
    OWNED_SOCKET() = default;
    explicit OWNED_SOCKET(SOCKET_HANDLE socket) : m_socket(socket) {}
    ~OWNED_SOCKET() { close(); }
    OWNED_SOCKET(OWNED_SOCKET&& other) noexcept : m_socket(other.release()) {}
    OWNED_SOCKET& operator=(OWNED_SOCKET&& other) noexcept {
        std::swap(m_socket, other.m_socket);
        return *this;
    }
    OWNED_SOCKET(const OWNED_SOCKET&) = delete;
    OWNED_SOCKET& operator=(const OWNED_SOCKET&) = delete;

    bool valid() const { return m_socket != invalid_socket; }
    SOCKET_HANDLE get() const { return m_socket; }
    SOCKET_HANDLE release() { return std::exchange(m_socket, invalid_socket); }

    void close() {
        if (valid()) {
            close_socket(release());
        }
    }

private:
    SOCKET_HANDLE m_socket = invalid_socket;
};

// A socket that listens, until the end of its scope.
class LISTENING_SOCKET {
public:
    LISTENING_SOCKET() = default;
    ~LISTENING_SOCKET() { close(); }
    LISTENING_SOCKET(const LISTENING_SOCKET&) = delete;
    LISTENING_SOCKET& operator=(const LISTENING_SOCKET&) = delete;

    void open(SOCKET_HANDLE socket) { m_socket = OWNED_SOCKET(socket); }
    bool valid() const { return m_socket.valid(); }
    SOCKET_HANDLE get() const { return m_socket.get(); }

    void close() {
        if (valid()) {
            stop_listening(get());
            m_socket.close();
        }
    }

private:
    OWNED_SOCKET m_socket;
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

// How a socket is to treat its address.
typedef bool (*ADDRESS_OPTION)(SOCKET_HANDLE socket);

// The listening socket for the address, bound but not yet listening; invalid when a call failed.
SOCKET_HANDLE open_bound_socket(const ADDRESS* address, ADDRESS_OPTION set_option) {
    const SOCKET_HANDLE socket = open_socket(address);
    if (socket != invalid_socket && !(set_option(socket) && bind_to(socket, address))) {
        close_socket(socket);
        return invalid_socket;
    }
    return socket;
}

// The listening socket; invalid when it cannot be had. The socket service is then left again,
// which a listener that has listened does not do.
SOCKET_HANDLE open_listening_socket(const char* node, const char* service,
                                    ADDRESS_OPTION set_option) {
    if (!start_up()) {
        return invalid_socket;
    }
    SOCKET_HANDLE socket = invalid_socket;
    if (ADDRESS* const address = find_address(node, service)) {
        socket = open_bound_socket(address, set_option);
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

// A word of 128 random bits, in hexadecimal; empty when it cannot be had.
std::string make_word() {
    std::array<unsigned char, 16> bytes = {};
    if (!fill_with_random_bytes(bytes.data(), bytes.size())) {
        return "";
    }
    constexpr char digits[] = "0123456789abcdef";
    std::string word;
    for (const unsigned char byte : bytes) {
        word += digits[byte / 16];
        word += digits[byte % 16];
    }
    return word;
}

void wake_listener(void* waker) {
    wake_up(*static_cast<SOCKET_HANDLE*>(waker));
}

class LISTENER {
public:
    explicit LISTENER(PGM_PYTHON_LISTENER_DATA& data) : m_data(data) {}
    ~LISTENER() {
        for (CLIENT& client : m_clients) {
            refuse(client);
        }
    }
    LISTENER(const LISTENER&) = delete;
    LISTENER& operator=(const LISTENER&) = delete;

    // Opens what is to be listened on. Whether there is anything.
    bool open();

    // Returns when nothing is left to listen for or the thread has been terminated.
    void serve();

private:
    // A client of the announced channel.
    struct CLIENT {
        OWNED_SOCKET socket;
        ANNOUNCED_TEXT text;
    };
    typedef ANNOUNCED_TEXT::STATE STATE;

    // How long a terminated listener goes on looking while there is something to see.
    static constexpr std::chrono::milliseconds last_look_limit{100};

    static void refuse(CLIENT& client) {
        if (client.socket.valid()) {
            break_off(client.socket.release());
        }
    }

    void open_announced_channel();
    bool is_over() const;
    bool is_settled() const;
    bool wait_for_sockets(bool& terminated);
    bool is_ready(SOCKET_HANDLE socket) const;
    bool any_is_ready() const;
    void serve_sockets();
    void receive_from_fixed_port();
    void receive_from(CLIENT& client);
    void accept_announced();
    void break_off_oldest();
    void take_text(const std::string& text);
    void take_unfinished_text();

    PGM_PYTHON_LISTENER_DATA& m_data;
    std::string m_word;
    LISTENING_SOCKET m_fixed_port;
    LISTENING_SOCKET m_announced_port;
    unsigned int m_announced_port_number = 0;
    SOCKET_HANDLE m_waker_handle = invalid_socket;
    OWNED_SOCKET m_waker;
    OWNED_SOCKET m_fixed_client;
    std::vector<CLIENT> m_clients;  // in the order in which they came
    std::vector<WAITED> m_waited;
    bool m_fixed_port_served = false;
    bool m_announced_text_taken = false;
};

bool LISTENER::open() {
    if (m_data.uses_fixed_port) {
        m_fixed_port.open(
            open_listening_socket(back_channel_node, back_channel_service, allow_address_reuse));
    }
    if (m_data.uses_announced_channel) {
        open_announced_channel();
    }
    if (!m_fixed_port.valid() && !m_announced_port.valid()) {
        return false;
    }
    m_waker = OWNED_SOCKET(open_waker());
    m_waker_handle = m_waker.get();
    if (!m_waker.valid()) {
        return false;
    }
    if (m_announced_port.valid()) {
        m_data.announced = std::string(announced_channel_node) + ":" +
                           std::to_string(m_announced_port_number) + ":" + m_word;
    }
    m_data.settled = is_settled();
    return true;
}

void LISTENER::open_announced_channel() {
    m_word = make_word();
    if (m_word.empty()) {
        return;
    }
    m_announced_port.open(
        open_listening_socket(announced_channel_node, announced_channel_service, keep_address));
    m_announced_port_number = m_announced_port.valid() ? port_of(m_announced_port.get()) : 0;
    if (m_announced_port_number == 0) {
        m_announced_port.close();
    }
}

void LISTENER::serve() {
    auto end = std::chrono::steady_clock::time_point::max();
    while (!is_over()) {
        bool terminated = false;
        if (!wait_for_sockets(terminated)) {
            return;
        }
        if (terminated) {
            const auto now = std::chrono::steady_clock::now();
            end = std::min(end, now + last_look_limit);
            if (!m_data.looks_once_more || now >= end || !any_is_ready()) {
                take_unfinished_text();
                return;
            }
        }
        serve_sockets();
        m_data.settled = is_settled();
    }
}

bool LISTENER::is_over() const {
    return m_announced_text_taken || (!m_announced_port.valid() && m_clients.empty() &&
                                      (m_fixed_port_served || !m_fixed_port.valid()));
}

bool LISTENER::is_settled() const {
    if (m_announced_text_taken) {
        return true;
    }
    return m_data.uses_fixed_port && (m_fixed_port_served || !m_fixed_port.valid()) &&
           std::none_of(m_clients.begin(), m_clients.end(), [](const CLIENT& client) {
               return client.text.state() == STATE::text_awaited;
           });
}

bool LISTENER::wait_for_sockets(bool& terminated) {
    m_waited = {{m_waker.get()}};
    const auto add = [this](bool wanted, SOCKET_HANDLE socket) {
        if (wanted) {
            m_waited.push_back({socket});
        }
    };
    add(m_fixed_port.valid() && !m_fixed_client.valid(), m_fixed_port.get());
    add(m_fixed_client.valid(), m_fixed_client.get());
    add(m_announced_port.valid(), m_announced_port.get());
    for (const CLIENT& client : m_clients) {
        add(true, client.socket.get());
    }
    const THR_BLOCKING_SCOPE scope(wake_listener, &m_waker_handle);
    terminated = scope.terminated();
    return wait(m_waited.data(), m_waited.size(), !terminated);
}

bool LISTENER::is_ready(SOCKET_HANDLE socket) const {
    return std::any_of(m_waited.begin(), m_waited.end(), [socket](const WAITED& waited) {
        return waited.socket == socket && waited.ready;
    });
}

// Whether there is something to accept or to receive.
bool LISTENER::any_is_ready() const {
    return std::any_of(m_waited.begin() + 1, m_waited.end(),
                       [](const WAITED& waited) { return waited.ready; });
}

// A socket that is accepted may get the number of one that has just been closed; so what is there
// is received first.
void LISTENER::serve_sockets() {
    for (CLIENT& client : m_clients) {
        if (!m_announced_text_taken && is_ready(client.socket.get())) {
            receive_from(client);
        }
    }
    m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                   [](const CLIENT& client) { return !client.socket.valid(); }),
                    m_clients.end());
    const bool accepts_announced = m_announced_port.valid() && is_ready(m_announced_port.get());
    if (m_fixed_client.valid()) {
        if (is_ready(m_fixed_client.get())) {
            receive_from_fixed_port();
        }
    } else if (m_fixed_port.valid() && is_ready(m_fixed_port.get())) {
        const SOCKET_HANDLE client = accept_client(m_fixed_port.get());
        if (client == invalid_socket) {
            m_fixed_port.close();
        } else if (client != no_client_yet) {
            m_fixed_client = OWNED_SOCKET(client);
        }
    }
    if (accepts_announced && !m_announced_text_taken) {
        accept_announced();
    }
}

void LISTENER::receive_from_fixed_port() {
    std::array<char, back_channel_limit + 1> buffer = {};
    const std::ptrdiff_t count = receive(m_fixed_client.get(), buffer.data(), back_channel_limit);
    if (count == no_bytes_yet) {
        return;
    }
    if (count > 0 && !m_announced_text_taken) {
        m_data.text.assign(buffer.data(), static_cast<std::size_t>(count));
        m_data.received = true;
    }
    m_fixed_port_served = true;
    m_data.settled = is_settled();  // before the client can see it
    shut_down_sending(m_fixed_client.get());
    m_fixed_client.close();
    m_fixed_port.close();
}

void LISTENER::receive_from(CLIENT& client) {
    std::array<char, announced_text_limit + 1> buffer = {};
    const std::size_t wanted = std::min(client.text.wanted(), announced_text_limit);
    const std::ptrdiff_t count = receive(client.socket.get(), buffer.data(), wanted);
    if (count == no_bytes_yet) {
        return;
    }
    STATE state = STATE::refused;
    if (count > 0) {
        state = client.text.take(buffer.data(), static_cast<std::size_t>(count));
    } else if (!client.text.text().empty()) {
        state = STATE::complete;
    }
    if (state == STATE::complete) {
        take_text(client.text.text());
        shut_down_sending(client.socket.get());
        client.socket.close();
    } else if (state == STATE::refused) {
        refuse(client);
    }
}

// Where the system gives no more sockets, those who say nothing give theirs back first.
void LISTENER::accept_announced() {
    const SOCKET_HANDLE client = accept_client(m_announced_port.get());
    if (client == invalid_socket) {
        if (m_clients.empty()) {
            m_announced_port.close();
        } else {
            break_off_oldest();
        }
    } else if (client != no_client_yet) {
        OWNED_SOCKET socket(client);
        if (m_clients.size() >= announced_clients_limit) {
            break_off_oldest();
        }
        m_clients.push_back({std::move(socket), ANNOUNCED_TEXT(m_word)});
    }
}

// Breaks off the oldest client without the word; where all have said it, the oldest one.
void LISTENER::break_off_oldest() {
    const auto silent = std::find_if(m_clients.begin(), m_clients.end(), [](const CLIENT& client) {
        return client.text.state() == STATE::word_awaited;
    });
    const auto oldest = silent == m_clients.end() ? m_clients.begin() : silent;
    refuse(*oldest);
    m_clients.erase(oldest);
}

void LISTENER::take_text(const std::string& text) {
    m_data.text = text;
    m_data.received = true;
    m_announced_text_taken = true;
    m_data.settled = is_settled();  // before the client can see it
}

// A sender that has not shut down its sending side by the end of the call has said what it has to.
void LISTENER::take_unfinished_text() {
    for (const CLIENT& client : m_clients) {
        if (m_data.looks_once_more && !client.text.text().empty()) {
            take_text(client.text.text());
            return;
        }
    }
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
    LISTENER listener(data);
    if (listener.open()) {
        set_up.give();
        listener.serve();
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
    m_data.uses_fixed_port = m_reasons == PGM_PYTHON_REASONS::both;
    m_data.uses_announced_channel = true;
    m_thread = thr_thread_create(listen_python_messages, &m_data, 0);
    if (m_thread != nullptr) {
        m_set_up.wait();
        m_announced = m_data.announced;
    }
}
