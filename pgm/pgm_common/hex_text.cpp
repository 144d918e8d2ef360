#include "pgm/pgm_common/hex_text.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define PGM_COMMON_HAS_SSE2 1
#endif

void write_hex_digits_portably(const unsigned char* bytes, std::size_t size, char* digits) {
    static const char digit[] = "0123456789ABCDEF";
    for (std::size_t index = 0; index < size; ++index) {
        digits[2 * index] = digit[bytes[index] >> 4];
        digits[2 * index + 1] = digit[bytes[index] & 0x0F];
    }
}

#if defined(PGM_COMMON_HAS_SSE2)

namespace {

// The digits of sixteen values from 0 to 15.
__m128i digits_of(__m128i values) {
    const __m128i above_nine = _mm_cmpgt_epi8(values, _mm_set1_epi8(9));
    const __m128i letters = _mm_and_si128(above_nine, _mm_set1_epi8('A' - '0' - 10));
    return _mm_add_epi8(_mm_add_epi8(values, _mm_set1_epi8('0')), letters);
}

}  // namespace

void write_hex_digits(const unsigned char* bytes, std::size_t size, char* digits) {
    const __m128i low_half = _mm_set1_epi8(0x0F);
    std::size_t index = 0;
    for (; index + 16 <= size; index += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + index));
        const __m128i high = digits_of(_mm_and_si128(_mm_srli_epi16(block, 4), low_half));
        const __m128i low = digits_of(_mm_and_si128(block, low_half));
        __m128i* const out = reinterpret_cast<__m128i*>(digits + 2 * index);
        _mm_storeu_si128(out, _mm_unpacklo_epi8(high, low));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(high, low));
    }
    write_hex_digits_portably(bytes + index, size - index, digits + 2 * index);
}

#else

void write_hex_digits(const unsigned char* bytes, std::size_t size, char* digits) {
    write_hex_digits_portably(bytes, size, digits);
}

#endif
