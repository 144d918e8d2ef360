// The digits of hexadecimal text.

#ifndef PGM_PGM_COMMON_HEX_TEXT_H
#define PGM_PGM_COMMON_HEX_TEXT_H

#include <cstddef>

// Writes two upper-case digits for each of `size` bytes to `digits`, which has room for twice as
// many characters. The processor's vector unit does it where there is one.
void write_hex_digits(const unsigned char* bytes, std::size_t size, char* digits);

// The same, byte by byte.
void write_hex_digits_portably(const unsigned char* bytes, std::size_t size, char* digits);

#endif
