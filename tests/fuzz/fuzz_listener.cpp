// The listener, by way of a real socket: whatever a client sends in whatever segments, and however
// the exchange ends.
//
// Input: a byte that says how it ends (ENDING), then segments: a byte (1: the client waits a little
// after it), a byte (the segment's size in units of 16), the segment's bytes.

#include "pgm/pgm_python/back_channel.h"
#include "tests/fuzz/fuzz_client.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

enum ENDING : std::size_t {
    // The client closes, or shuts its sending side down, and the listener is waited for.
    closes,
    shuts_down,
    // The client breaks the connection off.
    breaks_off,
    // The listener is terminated while the client holds on, or while there is none.
    terminated_with_client,
    terminated_without_client,
    // The client connects and closes before it has sent anything.
    says_nothing,
    endings,
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    make_first_thread();
    FUZZ_INPUT input(data, size);
    const std::size_t ending = input.below(endings);
    const std::vector<SEGMENT> segments = segments_of(input);
    const std::ptrdiff_t threads = entries_of("/proc/self/task");
    const std::ptrdiff_t descriptors = entries_of("/proc/self/fd");

    FUZZ_RECEIVER receiver;
    LISTENER_LATCH listening;
    PGM_PYTHON_LISTENER_DATA kept;
    kept.set_up = &listening;
    std::string sent;
    THR_THREAD thread = thr_thread_create(listen_python_messages, &kept, 0);
    MUST_HOLD(thread != nullptr);
    listening.wait();
    if (ending == terminated_without_client) {
        thr_thread_terminate_and_possibly_crash(thread);
    } else {
        FUZZ_CLIENT client(57343);
        for (const SEGMENT& segment : segments) {
            if (ending == says_nothing) {
                break;
            }
            client.send(segment.bytes);
            sent += segment.bytes;
            if (segment.waits) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        if (ending == terminated_with_client) {
            thr_thread_terminate_and_possibly_crash(thread);
        } else {
            if (ending == breaks_off) {
                client.break_off();
            } else if (ending == shuts_down) {
                client.shut_down();
            } else {
                client.close();
            }
            thr_thread_wait(thread);
        }
    }

    MUST_HOLD(kept.received == !kept.text.empty());
    MUST_HOLD(kept.text.size() <= 2048);
    MUST_HOLD(sent.compare(0, kept.text.size(), kept.text) == 0);
    if ((ending == closes || ending == shuts_down) && !sent.empty()) {
        MUST_HOLD(!kept.text.empty());
    }
    MUST_HOLD(receiver.errors.empty());
    MUST_HOLD(receiver.posts.empty());
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(are_back("/proc/self/task", threads));
    MUST_HOLD(are_back("/proc/self/fd", descriptors));
    return 0;
}
