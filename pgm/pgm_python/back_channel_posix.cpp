#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "pgm/pgm_python/back_channel_socket.h"

namespace back_channel_socket {

struct ADDRESS {
    addrinfo* found;
};

namespace {

int descriptor(SOCKET_HANDLE socket) {
    return static_cast<int>(socket);
}

SOCKET_HANDLE handle(int descriptor) {
    return descriptor < 0 ? invalid_socket : static_cast<SOCKET_HANDLE>(descriptor);
}

}  // namespace

bool start_up() {
    return true;
}

void clean_up() {}

ADDRESS* find_address(const char* node, const char* service) {
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* found = nullptr;
    return ::getaddrinfo(node, service, &hints, &found) == 0 ? new ADDRESS{found} : nullptr;
}

void free_address(ADDRESS* address) {
    ::freeaddrinfo(address->found);
    delete address;
}

SOCKET_HANDLE open_socket(const ADDRESS* address) {
    return handle(::socket(address->found->ai_family,
                           address->found->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                           address->found->ai_protocol));
}

bool allow_address_reuse(SOCKET_HANDLE socket) {
    const int reuse = 1;
    return ::setsockopt(descriptor(socket), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == 0;
}

// Without reuse an address is one socket's.
bool keep_address(SOCKET_HANDLE /*socket*/) {
    return true;
}

bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address) {
    return ::bind(descriptor(socket), address->found->ai_addr, address->found->ai_addrlen) == 0;
}

bool start_listening(SOCKET_HANDLE socket) {
    return ::listen(descriptor(socket), SOMAXCONN) == 0;
}

unsigned int port_of(SOCKET_HANDLE socket) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    return ::getsockname(descriptor(socket), reinterpret_cast<sockaddr*>(&address), &size) == 0
               ? ntohs(address.sin_port)
               : 0U;
}

bool fill_with_random_bytes(unsigned char* buffer, std::size_t size) {
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count = ::getrandom(buffer + filled, size - filled, 0);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        filled += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

SOCKET_HANDLE accept_client(SOCKET_HANDLE socket) {
    int client = -1;
    do {
        client = ::accept4(descriptor(socket), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    } while (client < 0 && errno == EINTR);
    if (client < 0 && (errno == EAGAIN || errno == ECONNABORTED)) {
        return no_client_yet;
    }
    return handle(client);
}

std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size) {
    ssize_t count = -1;
    do {
        count = ::recv(descriptor(socket), buffer, size, 0);
    } while (count < 0 && errno == EINTR);
    return count < 0 && errno == EAGAIN ? no_bytes_yet : count;
}

void shut_down_sending(SOCKET_HANDLE socket) {
    ::shutdown(descriptor(socket), SHUT_WR);
}

void close_socket(SOCKET_HANDLE socket) {
    ::close(descriptor(socket));
}

void stop_listening(SOCKET_HANDLE socket) {
    ::shutdown(descriptor(socket), SHUT_RDWR);
}

void break_off(SOCKET_HANDLE socket) {
    const linger at_once = {1, 0};
    ::setsockopt(descriptor(socket), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    ::close(descriptor(socket));
}

SOCKET_HANDLE open_waker() {
    return handle(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

void wake_up(SOCKET_HANDLE waker) {
    ::eventfd_write(descriptor(waker), 1);
}

bool wait(WAITED* sockets, std::size_t count, bool blocks) {
    std::vector<pollfd> polled(count);
    for (std::size_t index = 0; index < count; ++index) {
        polled[index] = {descriptor(sockets[index].socket), POLLIN, 0};
    }
    int ready = -1;
    do {
        ready = ::poll(polled.data(), polled.size(), blocks ? -1 : 0);
    } while (ready < 0 && errno == EINTR);
    for (std::size_t index = 0; index < count; ++index) {
        sockets[index].ready = ready > 0 && polled[index].revents != 0;
    }
    return ready >= 0;
}

}  // namespace back_channel_socket
