// Hexadecimal text of bytes, written by the vector unit and byte by byte.
//
// Input: a byte (the place in memory where the bytes begin, counted from a boundary of 32), then
// the bytes.

#include <cstring>
#include <memory>

#include "pgm/pgm_common/hex_text.h"
#include "pgm/pgm_common/pgm_common.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

std::string hex_text_of(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += digits;
    }
    return text;
}

// Bytes in memory of their exact size from a certain place on, so that the sanitizer sees what is
// read and written beyond.
struct MEMORY {
    MEMORY(std::size_t place, std::size_t size)
        : memory(new unsigned char[place + size]), begin(memory.get() + place) {}
    std::unique_ptr<unsigned char[]> memory;
    unsigned char* begin;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    const std::size_t place = input.below(32);
    const std::string bytes = input.rest();
    const std::string expected = hex_text_of(bytes);

    const MEMORY from(place, bytes.size());
    std::memcpy(from.begin, bytes.data(), bytes.size());
    for (const auto write : {write_hex_digits, write_hex_digits_portably}) {
        const MEMORY to(place / 2, 2 * bytes.size());
        char* const digits = reinterpret_cast<char*>(to.begin);
        write(from.begin, bytes.size(), digits);
        MUST_HOLD(std::string(digits, 2 * bytes.size()) == expected);
    }
    MUST_HOLD(PGM_COMMON::convert_byte_array_to_standard_hex_string(
                  from.begin, static_cast<unsigned long>(bytes.size()), true, false) == expected);
    MUST_HOLD(std::memcmp(from.begin, bytes.data(), bytes.size()) == 0);
    return 0;
}
