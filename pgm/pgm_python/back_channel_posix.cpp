#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

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
    return handle(::socket(address->found->ai_family, address->found->ai_socktype | SOCK_CLOEXEC,
                           address->found->ai_protocol));
}

bool allow_address_reuse(SOCKET_HANDLE socket) {
    const int reuse = 1;
    return ::setsockopt(descriptor(socket), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == 0;
}

bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address) {
    return ::bind(descriptor(socket), address->found->ai_addr, address->found->ai_addrlen) == 0;
}

bool start_listening(SOCKET_HANDLE socket) {
    return ::listen(descriptor(socket), SOMAXCONN) == 0;
}

SOCKET_HANDLE accept_client(SOCKET_HANDLE socket) {
    int client = -1;
    do {
        client = ::accept4(descriptor(socket), nullptr, nullptr, SOCK_CLOEXEC);
    } while (client < 0 && errno == EINTR);
    return handle(client);
}

std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size) {
    ssize_t count = -1;
    do {
        count = ::recv(descriptor(socket), buffer, size, 0);
    } while (count < 0 && errno == EINTR);
    return count;
}

void shut_down_sending(SOCKET_HANDLE socket) {
    ::shutdown(descriptor(socket), SHUT_WR);
}

void close_socket(SOCKET_HANDLE socket) {
    ::close(descriptor(socket));
}

// A listening socket that is shut down refuses to accept, a connected one to receive, now and
// later.
void unblock(SOCKET_HANDLE socket) {
    ::shutdown(descriptor(socket), SHUT_RDWR);
}

}  // namespace back_channel_socket
