// The back channel: a local TCP port on which a script can tell why it fails.
//
// A listener serves one connection and keeps one chunk of at most 2048 bytes. The chunk holds one
// reason, or several parted by back_channel_delimiter.

#ifndef PGM_PGM_PYTHON_BACK_CHANNEL_H
#define PGM_PGM_PYTHON_BACK_CHANNEL_H

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

#include "zel/zel_thr/zel_thr.h"

// Where the listener listens: every IPv4 interface, and this TCP port.
constexpr char back_channel_node[] = "0.0.0.0";
constexpr char back_channel_service[] = "57343";

// How much a listener takes; the rest of a longer text is lost.
constexpr std::size_t back_channel_limit = 2048;

// What parts reasons.
constexpr char back_channel_delimiter[] = " !@#$^&*() ";

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
};

// The listener: a thread function. `handle` is the address of a PGM_PYTHON_LISTENER_DATA; null is
// an internal error. Serves one connection, then ends; also ends when its thread is terminated,
// its sockets closed. A failure of any call ends it without a report. Returns 0.
int listen_python_messages(void* handle);

// A listener as a scope: none before `start`, none after `complete` or the destructor.
class BACK_CHANNEL {
public:
    BACK_CHANNEL() = default;
    // Terminates a listener that was not completed. Reports nothing.
    ~BACK_CHANNEL();

    BACK_CHANNEL(const BACK_CHANNEL&) = delete;
    BACK_CHANNEL& operator=(const BACK_CHANNEL&) = delete;

    // Starts the listener and returns once it listens or has failed to, so that a script's very
    // first act can be to send. Without a thread or a port the call goes on without reasons.
    void start();

    // Runs complete_python_call (bridge_call.h) on the listener. To be called once, after start.
    void complete(bool success, const std::string& function, const std::string& file);

private:
    LISTENER_LATCH m_set_up;
    PGM_PYTHON_LISTENER_DATA m_data;
    THR_THREAD m_thread = nullptr;
};

#endif
