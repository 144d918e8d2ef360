#include <winsock2.h>
#include <ws2tcpip.h>

#include <bcrypt.h>

#include <vector>

#include "pgm/pgm_python/back_channel_socket.h"

namespace back_channel_socket {

struct ADDRESS {
    addrinfo* found;
};

namespace {

// A socket that does not block and that processes which the host starts do not get.
SOCKET_HANDLE own(SOCKET socket) {
    if (socket == INVALID_SOCKET) {
        return invalid_socket;
    }
    ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
    u_long not_blocking = 1;
    if (::ioctlsocket(socket, static_cast<long>(FIONBIO), &not_blocking) != 0) {
        ::closesocket(socket);
        return invalid_socket;
    }
    return socket;
}

bool set_option(SOCKET_HANDLE socket, int option) {
    const int yes = 1;
    return ::setsockopt(socket, SOL_SOCKET, option, reinterpret_cast<const char*>(&yes),
                        sizeof yes) == 0;
}

// The address of a bound socket. Tells whether it succeeded.
bool find_own_address(SOCKET_HANDLE socket, sockaddr_in& address) {
    int size = sizeof address;
    return ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
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
    return set_option(socket, SO_REUSEADDR);
}

// Else a socket with SO_REUSEADDR could be bound to the same address.
bool keep_address(SOCKET_HANDLE socket) {
    return set_option(socket, SO_EXCLUSIVEADDRUSE);
}

bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address) {
    return ::bind(socket, address->found->ai_addr, static_cast<int>(address->found->ai_addrlen)) ==
           0;
}

bool start_listening(SOCKET_HANDLE socket) {
    return ::listen(socket, SOMAXCONN) == 0;
}

unsigned int port_of(SOCKET_HANDLE socket) {
    sockaddr_in address = {};
    return find_own_address(socket, address) ? ntohs(address.sin_port) : 0U;
}

bool fill_with_random_bytes(unsigned char* buffer, std::size_t size) {
    return ::BCryptGenRandom(nullptr, buffer, static_cast<ULONG>(size),
                             BCRYPT_USE_SYSTEM_PREFERRED_RNG) == 0;
}

SOCKET_HANDLE accept_client(SOCKET_HANDLE socket) {
    const SOCKET client = ::accept(socket, nullptr, nullptr);
    if (client == INVALID_SOCKET) {
        const int error = ::WSAGetLastError();
        if (error == WSAEWOULDBLOCK || error == WSAECONNRESET) {
            return no_client_yet;
        }
    }
    return own(client);
}

std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size) {
    const int count = ::recv(socket, buffer, static_cast<int>(size), 0);
    return count < 0 && ::WSAGetLastError() == WSAEWOULDBLOCK ? no_bytes_yet : count;
}

void shut_down_sending(SOCKET_HANDLE socket) {
    ::shutdown(socket, SD_SEND);
}

void close_socket(SOCKET_HANDLE socket) {
    ::closesocket(socket);
}

// No process has a copy of it.
void stop_listening(SOCKET_HANDLE /*socket*/) {}

void break_off(SOCKET_HANDLE socket) {
    const linger at_once = {1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
                 sizeof at_once);
    ::closesocket(socket);
}

// A socket that sends to itself and hears nobody else.
SOCKET_HANDLE open_waker() {
    const SOCKET_HANDLE waker = own(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (waker == invalid_socket) {
        return invalid_socket;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bound =
        ::bind(waker, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (!bound || !find_own_address(waker, address) ||
        ::connect(waker, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::closesocket(waker);
        return invalid_socket;
    }
    return waker;
}

void wake_up(SOCKET_HANDLE waker) {
    ::send(waker, "", 1, 0);
}

bool wait(WAITED* sockets, std::size_t count, bool blocks) {
    std::vector<WSAPOLLFD> polled(count);
    for (std::size_t index = 0; index < count; ++index) {
        polled[index].fd = sockets[index].socket;
        polled[index].events = POLLRDNORM;
    }
    const int ready = ::WSAPoll(polled.data(), static_cast<ULONG>(count), blocks ? -1 : 0);
    for (std::size_t index = 0; index < count; ++index) {
        sockets[index].ready = ready > 0 && polled[index].revents != 0;
    }
    return ready >= 0;
}

}  // namespace back_channel_socket
