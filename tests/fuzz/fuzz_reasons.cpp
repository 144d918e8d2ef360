// Reasons that a script sent: how they are parted and relayed when its call has ended.
//
// Input: a byte (1: the call succeeded, 2: nothing was received, 4: no function name), the
// function's name and the file's as texts, then what the script sent.

#include <cstring>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/call_completion.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// The reasons in a text, found byte by byte.
std::vector<std::string> reasons_in(const std::string& text) {
    static const char delimiter[] = {' ', '!', '@', '#', '$', '^', '&', '*', '(', ')', ' '};
    std::vector<std::string> reasons;
    std::string piece;
    const auto end_piece = [&] {
        if (!piece.empty()) {
            reasons.push_back(up_to_zero(piece));
        }
        piece.clear();
    };
    for (std::size_t at = 0; at < text.size();) {
        if (text.size() - at >= sizeof delimiter &&
            std::memcmp(&text[at], delimiter, sizeof delimiter) == 0) {
            end_piece();
            at += sizeof delimiter;
        } else {
            piece += text[at];
            ++at;
        }
    }
    end_piece();
    return reasons;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    const unsigned flags = input.byte();
    const bool success = (flags & 1) != 0;
    PGM_PYTHON_LISTENER_DATA sent;
    sent.received = (flags & 2) == 0;
    std::string function = input.text();
    if ((flags & 4) != 0) {
        function.clear();
    }
    const std::string file = input.text();
    sent.text = input.rest();
    const std::string text_before = sent.text;

    FUZZ_RECEIVER::POSTS expected;
    if (!success) {
        if (function.empty()) {
            expected.emplace_back(20354UL, "Fail to execute file " + file);
        } else {
            expected.emplace_back(20351UL,
                                  "Fail to execute function " + function + " in file " + file);
        }
        if (sent.received) {
            for (const std::string& reason : reasons_in(sent.text)) {
                expected.emplace_back(20353UL, reason);
            }
        }
    }

    FUZZ_RECEIVER receiver;
    THR_THREAD ended = nullptr;
    complete_python_call(success, &ended, &sent, function, file);
    MUST_HOLD(receiver.posts == expected);
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(receiver.errors.empty());
    MUST_HOLD(sent.text == text_before);
    return 0;
}
