// What the fuzz targets have in common. A target runs what the library makes of one input and says
// with MUST_HOLD what has to be true of it; a condition that is not ends the process, which the
// fuzzer takes for a finding.

#ifndef TESTS_FUZZ_FUZZ_SUPPORT_H
#define TESTS_FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "zel/zel_msg/zel_msg.h"

#define MUST_HOLD(condition)                                                                    \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

// An input, taken apart from its beginning.
class FUZZ_INPUT {
public:
    FUZZ_INPUT(const std::uint8_t* data, std::size_t size) : m_at(data), m_end(data + size) {}

    bool ended() const { return m_at == m_end; }

    // The next byte; 0 at the end.
    unsigned byte() { return ended() ? 0U : *m_at++; }

    // The next byte as a number below `limit`.
    std::size_t below(std::size_t limit) { return byte() % limit; }

    // A text: a byte with its length, then the text.
    std::string text() { return taken(byte()); }

    // All that is left.
    std::string rest() { return taken(static_cast<std::size_t>(m_end - m_at)); }

private:
    std::string taken(std::size_t size) {
        const std::size_t left = static_cast<std::size_t>(m_end - m_at);
        const std::uint8_t* const begin = m_at;
        m_at += size < left ? size : left;
        return std::string(begin, m_at);
    }

    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
};

// Records what is reported while it lives. Throws MSG_RECEIVER::INTERNAL_ERROR out of internal
// errors, save for those with a line among `returning_lines`.
class FUZZ_RECEIVER : public MSG_RECEIVER {
public:
    FUZZ_RECEIVER() : m_before(MSG_RECEIVER::set(this)) {}
    ~FUZZ_RECEIVER() override { MSG_RECEIVER::set(m_before); }

    void line(int type, const std::string& text) override {
        MUST_HOLD(type == MSG_TYPE_ERROR);
        lines.push_back(text);
    }
    void post(unsigned long number, const std::string& text) override {
        posts.emplace_back(number, text);
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        MUST_HOLD(error.module == "PGM_PYTHON");
        MUST_HOLD(error.source == "pgm/pgm_python/pgm_python_mgr");
        errors.emplace_back(error.line, error.text);
        if (returning_lines.count(error.line) == 0) {
            throw error;
        }
    }

    typedef std::vector<std::pair<unsigned long, std::string>> POSTS;
    typedef std::vector<std::pair<int, std::string>> ERRORS;

    std::vector<std::string> lines;
    POSTS posts;
    ERRORS errors;
    std::set<int> returning_lines;

private:
    MSG_RECEIVER* m_before;
};

// The text up to its first zero byte.
inline std::string up_to_zero(const std::string& text) {
    std::string result;
    for (const char letter : text) {
        if (letter == '\0') {
            break;
        }
        result += letter;
    }
    return result;
}

#endif
