// The socket calls of the listener; one file a platform implements them. Each does what the
// platform's call of the same name does.

#ifndef PGM_PGM_PYTHON_BACK_CHANNEL_SOCKET_H
#define PGM_PGM_PYTHON_BACK_CHANNEL_SOCKET_H

#include <cstddef>
#include <cstdint>

namespace back_channel_socket {

// A socket; wide enough for every platform's.
typedef std::uintptr_t SOCKET_HANDLE;
constexpr SOCKET_HANDLE invalid_socket = ~static_cast<SOCKET_HANDLE>(0);

// What getaddrinfo found.
struct ADDRESS;

// Enters and leaves the platform's socket service. start_up tells whether it succeeded.
bool start_up();
void clean_up();

// Finds where to listen: IPv4, TCP, passive. Null when that fails; released by free_address.
ADDRESS* find_address(const char* node, const char* service);
void free_address(ADDRESS* address);

// A new socket for the address, not inherited by processes that the host starts.
SOCKET_HANDLE open_socket(const ADDRESS* address);

// Each tells whether it succeeded.
bool allow_address_reuse(SOCKET_HANDLE socket);
bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address);
bool start_listening(SOCKET_HANDLE socket);

// Blocks until a client connects; its socket, or invalid_socket. Not inherited either.
SOCKET_HANDLE accept_client(SOCKET_HANDLE socket);

// Blocks until bytes come; their number, 0 when the client is gone, negative on failure.
std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size);

void shut_down_sending(SOCKET_HANDLE socket);
void close_socket(SOCKET_HANDLE socket);

// Makes accept_client and receive return on another thread, and does no harm otherwise.
void unblock(SOCKET_HANDLE socket);

}  // namespace back_channel_socket

#endif
