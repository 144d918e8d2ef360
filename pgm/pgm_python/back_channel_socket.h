// The system calls of the listener; one file a platform implements them. Each does what the
// platform's call of the same name does. No socket blocks, and none is inherited by processes that
// the host starts.

#ifndef PGM_PGM_PYTHON_BACK_CHANNEL_SOCKET_H
#define PGM_PGM_PYTHON_BACK_CHANNEL_SOCKET_H

#include <cstddef>
#include <cstdint>

namespace back_channel_socket {

// A socket; wide enough for every platform's.
typedef std::uintptr_t SOCKET_HANDLE;
constexpr SOCKET_HANDLE invalid_socket = ~static_cast<SOCKET_HANDLE>(0);

// What accept_client and receive give while there is nothing to accept or to receive.
constexpr SOCKET_HANDLE no_client_yet = invalid_socket - 1;
constexpr std::ptrdiff_t no_bytes_yet = -2;

// What getaddrinfo found.
struct ADDRESS;

// Enters and leaves the platform's socket service. start_up tells whether it succeeded.
bool start_up();
void clean_up();

// Finds where to listen: IPv4, TCP, passive. Null when that fails; released by free_address.
ADDRESS* find_address(const char* node, const char* service);
void free_address(ADDRESS* address);

// A new socket for the address.
SOCKET_HANDLE open_socket(const ADDRESS* address);

// Each tells whether it succeeded. A socket whose address is reused may be bound where connections
// of an earlier one are not over yet; one whose address is kept is bound where no other can be.
bool allow_address_reuse(SOCKET_HANDLE socket);
bool keep_address(SOCKET_HANDLE socket);
bool bind_to(SOCKET_HANDLE socket, const ADDRESS* address);
bool start_listening(SOCKET_HANDLE socket);

// The port of a bound socket; 0 on failure.
unsigned int port_of(SOCKET_HANDLE socket);

// Fills the buffer with bytes that nobody can guess. Tells whether it succeeded.
bool fill_with_random_bytes(unsigned char* buffer, std::size_t size);

// The socket of the next client; no_client_yet where there is none or it has gone again;
// invalid_socket on failure.
SOCKET_HANDLE accept_client(SOCKET_HANDLE socket);

// The number of bytes that have come, `size` at most; 0 when the client is gone, no_bytes_yet while
// there are none, another negative number on failure.
std::ptrdiff_t receive(SOCKET_HANDLE socket, char* buffer, std::size_t size);

void shut_down_sending(SOCKET_HANDLE socket);
void close_socket(SOCKET_HANDLE socket);

// Ends listening for every process that has the socket: a process that a script forked keeps a
// copy.
void stop_listening(SOCKET_HANDLE socket);

// Closes a client's socket in such a way that the client sees its connection reset.
void break_off(SOCKET_HANDLE socket);

// A socket that makes `wait` return when wake_up is called, on any thread, and stays ready from
// then on. Closed as the others are.
SOCKET_HANDLE open_waker();
void wake_up(SOCKET_HANDLE waker);

// Waits until one of the sockets has something to accept or to receive; with `blocks` false only
// looks whether one has. Tells whether it succeeded.
struct WAITED {
    SOCKET_HANDLE socket = invalid_socket;
    bool ready = false;
};
bool wait(WAITED* sockets, std::size_t count, bool blocks);

}  // namespace back_channel_socket

#endif
