// Bytes as hexadecimal text where the suite's text has another form than this project's own: the
// function that makes it is this program's, and takes the place of the library's.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/python_values.h"

namespace {

// The forms that a text of bytes may have.
enum class FORM { digits, lower_case, prefix, blanks, lines, last_first, words_last_first };

void PrintTo(FORM form, std::ostream* stream) {
    constexpr const char* names[] = {"digits", "lower_case", "prefix",          "blanks",
                                     "lines",  "last_first", "words_last_first"};
    *stream << names[static_cast<int>(form)];
}
FORM form = FORM::digits;

std::string text_in(FORM wanted, const unsigned char* bytes, std::size_t size) {
    const char* const digits = wanted == FORM::lower_case ? "0123456789abcdef" : "0123456789ABCDEF";
    std::string text = wanted == FORM::prefix ? "0x" : "";
    for (std::size_t index = 0; index < size; ++index) {
        std::size_t at = index;
        if (wanted == FORM::last_first) {
            at = size - 1 - index;
        } else if (wanted == FORM::words_last_first) {
            at = (index ^ 3U) < size ? (index ^ 3U) : index;
        }
        text += digits[bytes[at] >> 4];
        text += digits[bytes[at] & 15];
        if (wanted == FORM::blanks) {
            text += ' ';
        } else if (wanted == FORM::lines && index % 32 == 31) {
            text += '\n';
        }
    }
    return text;
}

}  // namespace

std::string PGM_COMMON::convert_byte_array_to_standard_hex_string(unsigned char* bytes,
                                                                  unsigned long size,
                                                                  bool /*upper_case*/,
                                                                  bool /*prefixed*/) {
    return text_in(form, bytes, size);
}

namespace {

class HexForm : public testing::TestWithParam<FORM> {};

TEST_P(HexForm, TheScriptGetsTheWholeTextInItsForm) {
    form = GetParam();
    INTERPRETER_SESSION session;
    for (const std::size_t size : {0U, 1U, 8U, 0x4000U, 0x4001U, 0x9004U}) {
        std::vector<unsigned char> bytes(size);
        for (std::size_t index = 0; index < size; ++index) {
            bytes[index] = static_cast<unsigned char>(index * 37 + index / 256);
        }
        const PY_REFERENCE made =
            PY_REFERENCE::owned(make_object(hex_argument(bytes.data(), size), session));
        ASSERT_TRUE(static_cast<bool>(made));
        Py_ssize_t length = 0;
        const char* const text = PyUnicode_AsUTF8AndSize(made.get(), &length);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text, static_cast<std::size_t>(length)),
                  text_in(form, bytes.data(), size))
            << size;
    }
}

INSTANTIATE_TEST_SUITE_P(Hex, HexForm,
                         testing::Values(FORM::digits, FORM::lower_case, FORM::prefix, FORM::blanks,
                                         FORM::lines, FORM::last_first, FORM::words_last_first));

}  // namespace
