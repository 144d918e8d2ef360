// The announced channel, by way of real sockets: whatever a client says in whatever segments, and
// however the exchange ends, with a silent client beside it.
//
// Input: a byte that says how it ends (ENDING), a byte with the number of bytes of word and line
// feed that the client says rightly, then segments as segments_of has them.

#include <algorithm>

#include "pgm/pgm_python/back_channel.h"
#include "tests/fuzz/fuzz_client.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

enum ENDING : std::size_t {
    // The client closes, or shuts its sending side down.
    closes,
    shuts_down,
    // The client breaks the connection off.
    breaks_off,
    // The listener is terminated while the client holds on, after a call that failed or succeeded.
    terminated_after_failure,
    terminated_after_success,
    endings,
};

constexpr std::size_t most = 2048;

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    make_first_thread();
    FUZZ_INPUT input(data, size);
    const std::size_t ending = input.below(endings);
    const std::size_t right_bytes = input.byte();
    const std::vector<SEGMENT> segments = segments_of(input);
    const std::ptrdiff_t threads = entries_of("/proc/self/task");
    const std::ptrdiff_t descriptors = entries_of("/proc/self/fd");

    FUZZ_RECEIVER receiver;
    LISTENER_LATCH listening;
    PGM_PYTHON_LISTENER_DATA kept;
    kept.set_up = &listening;
    kept.uses_fixed_port = false;
    kept.uses_announced_channel = true;
    THR_THREAD thread = thr_thread_create(listen_python_messages, &kept, 0);
    MUST_HOLD(thread != nullptr);
    listening.wait();
    MUST_HOLD(kept.announced.compare(0, 10, "127.0.0.1:") == 0);
    const unsigned int port = static_cast<unsigned int>(std::stoul(kept.announced.substr(10)));
    const std::string word = kept.announced.substr(kept.announced.rfind(':') + 1) + "\n";
    MUST_HOLD(word.size() == 33);

    std::string said = word.substr(0, std::min(right_bytes, word.size()));
    std::string text;  // what is to be taken
    {
        FUZZ_CLIENT silent(port);
        FUZZ_CLIENT client(port);
        client.send(said);
        for (const SEGMENT& segment : segments) {
            client.send(segment.bytes);
            said += segment.bytes;
            if (segment.waits) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        if (said.compare(0, word.size(), word) == 0) {
            text = said.substr(word.size(), most);
        }
        if (ending == terminated_after_failure || ending == terminated_after_success) {
            kept.looks_once_more = ending == terminated_after_failure;
            thr_thread_terminate_and_possibly_crash(thread);
        } else {
            if (ending == breaks_off) {
                client.break_off();
            } else if (ending == shuts_down) {
                client.shut_down();
            } else {
                client.close();
            }
            if (!text.empty() && ending != breaks_off) {
                thr_thread_wait(thread);
            } else if (ending != breaks_off) {
                // Nothing was taken, and the next one is heard.
                FUZZ_CLIENT next(port);
                next.send(word + "heard");
                next.shut_down();
                thr_thread_wait(thread);
                MUST_HOLD(kept.text == "heard");
                text = "heard";
            } else {
                thr_thread_terminate_and_possibly_crash(thread);
            }
        }
    }

    MUST_HOLD(kept.received == !kept.text.empty());
    MUST_HOLD(text.compare(0, kept.text.size(), kept.text) == 0);
    if (ending == closes || ending == shuts_down || ending == terminated_after_failure) {
        MUST_HOLD(kept.text == text);
    }
    if (ending == terminated_after_success) {
        MUST_HOLD(kept.text.empty() || kept.text.size() == most);
    }
    MUST_HOLD(receiver.errors.empty());
    MUST_HOLD(receiver.posts.empty());
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(are_back("/proc/self/task", threads));
    MUST_HOLD(are_back("/proc/self/fd", descriptors));
    return 0;
}
