// A back channel written by hand: what a call needs and no more.

#ifndef BENCH_HAND_WRITTEN_LISTENER_H
#define BENCH_HAND_WRITTEN_LISTENER_H

#include <atomic>
#include <string>
#include <thread>
#include <vector>

// Whether a call has a back channel, and from when on.
enum class CHANNEL { none, early, late };

class HAND_WRITTEN_LISTENER {
public:
    // Returns when the thread listens.
    void start();

    // Waits for up to five times 100 ms after a failed call, then ends the thread. Returns the
    // reasons that came, for a failed call.
    std::vector<std::string> finish(bool success);

private:
    void listen();

    std::thread m_thread;
    std::atomic<int> m_listener{-1};
    std::atomic<int> m_client{-1};
    std::atomic<bool> m_ended{false};
    std::string m_text;
};

#endif
