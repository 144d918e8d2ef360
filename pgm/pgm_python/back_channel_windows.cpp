#include <winsock2.h>
#include <ws2tcpip.h>

#include "pgm/pgm_python/back_channel_socket.h"

namespace back_channel_socket {

struct ADDRESS {
    addrinfo* found;
};

namespace {

// A socket that processes which the host starts do not get.
SOCKET_HANDLE own(SOCKET socket) {
    if (socket == INVALID_SOCKET) {
        return invalid_socket;
    }
    ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
    return socket;
}

}  // namespace

bool start_up() {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

void clean_up() {
    ::WSACleanup();
}

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
    return own(::socket(address->found->ai_family, address->found->ai_socktype,
                        address->found->ai_protocol));
}

bool allow_address_reuse(SOCKET_HANDLE socket) {
    const int reuse = 1;
    return ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse),
                        sizeof reuse) == 0;
}

bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address) {
    return ::bind(socket, address->found->ai_addr, static_cast<int>(address->found->ai_addrlen)) ==
           0;
}

bool start_listening(SOCKET_HANDLE socket) {
    return ::listen(socket, SOMAXCONN) == 0;
}

SOCKET_HANDLE accept_client(SOCKET_HANDLE socket) {
    return own(::accept(socket, nullptr, nullptr));
}

std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size) {
    return ::recv(socket, buffer, static_cast<int>(size), 0);
}

void shut_down_sending(SOCKET_HANDLE socket) {
    ::shutdown(socket, SD_SEND);
}

void close_socket(SOCKET_HANDLE socket) {
    ::closesocket(socket);
}

// Ends the calls that wait on the socket now. The socket stays open, so that its number cannot
// become another's while the listener still uses it.
void unblock(SOCKET_HANDLE socket) {
    ::CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr);
}

}  // namespace back_channel_socket
