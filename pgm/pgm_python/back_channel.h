// The back channel: on what a script can tell why it fails. One listener, two channels.
//
// The fixed port is one a machine. The listener serves one connection there, keeps one chunk of at
// most 2048 bytes, and closes the port.
//
// The announced channel is the call's own: a port of the system's choice on 127.0.0.1 and a random
// word. The script finds "127.0.0.1:PORT:WORD" in its environment (reasons_channel_variable). A
// client says the word and a line feed, then its text, and shuts down its sending side; it sees the
// end of the connection when its text has been taken, and a reset when it has not. A client without
// the word is broken off as soon as as many bytes have come as word and line feed have; one that
// says nothing holds nobody up, and gives way when there are too many. One text of at most 2048
// bytes is taken.
//
// A text holds one reason, or several parted by back_channel_delimiter. The text of the announced
// channel counts when both have delivered.
//
// When the listener ends:
//  - with the announced text, at once;
//  - with the fixed port's connection served, where there is no announced channel;
//  - else when it is terminated. After a failed call it then looks once more, without waiting, at
//    what has reached the announced channel.
// How long a failed call gives it (the grace): until it has ended or is settled, at most 500 ms. It
// is settled once the fixed port's connection has been served or the port could not be had, unless
// a client of the announced channel is in the middle of its text. So nothing that a stranger does
// on the fixed port costs a script its reasons or a call more time than the fixed port alone does.

#ifndef PGM_PGM_PYTHON_BACK_CHANNEL_H
#define PGM_PGM_PYTHON_BACK_CHANNEL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

#include "pgm/pgm_python/pgm_python_settings.h"
#include "zel/zel_thr/zel_thr.h"

// Where the listener listens: every IPv4 interface, and this TCP port.
constexpr char back_channel_node[] = "0.0.0.0";
constexpr char back_channel_service[] = "57343";

// Where it listens for the announced channel: a port of the system's choice.
constexpr char announced_channel_node[] = "127.0.0.1";
constexpr char announced_channel_service[] = "0";

// The environment variable of a script that names the announced channel.
constexpr char reasons_channel_variable[] = "PGM_PYTHON_REASONS_CHANNEL";

// How much a listener takes; the rest of a longer text is lost.
constexpr std::size_t back_channel_limit = 2048;

// What parts reasons.
constexpr char back_channel_delimiter[] = " !@#$^&*() ";

// How many clients of the announced channel are listened to at the same time. One more breaks off
// the one of them that has been silent longest.
constexpr std::size_t announced_clients_limit = 64;

// Lets one thread wait until another has come to a certain point. Used once.
class LISTENER_LATCH {
public:
    void open();
    void wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_open = false;
};

// What an operation shares with its listener. The operation owns it and reads the first two fields
// only once the listener has ended; the listener writes `text` first and `received` second.
struct PGM_PYTHON_LISTENER_DATA {
    // Whether text came.
    bool received = false;
    // The bytes that came, as they are.
    std::string text;
    // Opened, unless null, as soon as the listener listens or has failed to.
    LISTENER_LATCH* set_up = nullptr;

    // On which channels to listen. Set before the listener starts.
    bool uses_fixed_port = true;
    bool uses_announced_channel = false;
    // The announced channel, "127.0.0.1:PORT:WORD"; empty when it could not be had. The listener
    // writes it before `set_up` is opened and never again.
    std::string announced;

    // Set by the listener: there is nothing left that a failed call would wait for.
    std::atomic<bool> settled{false};
    // Set before the listener is terminated: the call has failed, and what has come by now counts.
    std::atomic<bool> looks_once_more{false};
};

// The listener: a thread function. `handle` is the address of a PGM_PYTHON_LISTENER_DATA; null is
// an internal error. Serves the channels as said above, then ends; also ends when its thread is
// terminated, its sockets closed. A failure of any call ends the channel that it concerns without a
// report. Returns 0.
int listen_python_messages(void* handle);

// A listener as a scope: none before `start`, none after complete_python_call (call_completion.h)
// or the destructor. Belongs to the thread of its call.
class BACK_CHANNEL {
public:
    // Listens on the channels that the setting names.
    explicit BACK_CHANNEL(PGM_PYTHON_REASONS reasons = PGM_PYTHON_REASONS::both)
        : m_reasons(reasons) {}
    // Terminates a listener that still runs. Reports nothing.
    ~BACK_CHANNEL();

    BACK_CHANNEL(const BACK_CHANNEL&) = delete;
    BACK_CHANNEL& operator=(const BACK_CHANNEL&) = delete;

    // Starts the listener and returns once it listens or has failed to, so that a script's very
    // first act can be to send. Without a thread or a port the call goes on without reasons. To be
    // called once.
    void start();

    // What the script's environment is to say of the announced channel, "127.0.0.1:PORT:WORD";
    // empty before `start` and where the channel could not be had.
    const std::string& announced() const { return m_announced; }

    // The handle of the listener that was started and what is shared with it, for the step that
    // ends the call.
    THR_THREAD* thread() { return &m_thread; }
    PGM_PYTHON_LISTENER_DATA* data() { return &m_data; }

private:
    const PGM_PYTHON_REASONS m_reasons;
    LISTENER_LATCH m_set_up;
    PGM_PYTHON_LISTENER_DATA m_data;
    std::string m_announced;
    THR_THREAD m_thread = nullptr;
};

#endif
