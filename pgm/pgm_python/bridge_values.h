// What a bridge hands to the road and what it gets back: plain values, which know nothing of
// Python.

#ifndef PGM_PGM_PYTHON_BRIDGE_VALUES_H
#define PGM_PGM_PYTHON_BRIDGE_VALUES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pgm/pgm_python/messages.h"

// The low 32 bits of a number: what counts of an unsigned long.
inline unsigned long low_32_bits(unsigned long number) {
    return number & 0xFFFFFFFFUL;
}

// A value for a script. What it was made of by reference must outlive the call.
struct ARGUMENT {
    enum class KIND {
        text,       // a str of the text up to its first zero byte
        number,     // an int
        bytes,      // a bytearray with a copy of the bytes; of zeros when `bytes` is null
        hex,        // a str of the bytes as hexadecimal text
        flag,       // True or False, taken into the tuple without a reference of its own
        map,        // a dict of str to str, in the map's order
        filled_in,  // a bytearray of zeros for a secret that the script fills in; overwritten
                    // before the tuple goes, however the call ends
    };
    KIND kind = KIND::text;
    const std::string* text = nullptr;
    std::int32_t number = 0;
    const unsigned char* bytes = nullptr;
    std::size_t size = 0;  // of bytes
    bool flag = false;
    const std::map<std::string, std::string>* map = nullptr;
};

ARGUMENT text_argument(const std::string& text);

// Of the number the low 32 bits count, read as a signed number.
ARGUMENT number_argument(unsigned long number);

ARGUMENT hex_argument(const unsigned char* bytes, std::size_t size);
ARGUMENT bytes_argument(const unsigned char* bytes, std::size_t size);
ARGUMENT flag_argument(bool flag);

// A text in the map that is not UTF-8 fails the call.
ARGUMENT map_argument(const std::map<std::string, std::string>& map);

// The road hands back what the script filled in with ANSWER_FORM::filled_in.
ARGUMENT filled_in_argument(std::size_t size);

// What an answer is to be, with the checks that go with it. An answer of another kind gives the
// value that the kind names; nothing of Python's error state is left pending.
struct ANSWER_FORM {
    enum class KIND {
        ignored,        // of no interest
        text,           // the text of a str, up to its first zero byte; else empty
        text_or_bytes,  // the same where the type is exactly str; of anything else the bytes of a
                        // bytes object, up to the first zero byte; else empty
        number,         // the number of an int that a signed 32-bit number holds, as 0 to
                        // 0xFFFFFFFF; else 0xFFFFFFFF
        bytes,          // the bytes of a bytearray, their number cut to 32 bits; else none
        chunks,         // the bytes of a list of bytearrays, one after another; of anything but a
                        // list none; an item of another kind fails the call
        items,          // a list of so many items
        filled_in,      // True, and the bytes of the argument that was to be filled in
    };
    // An item of a list, a number or bytes.
    struct ITEM {
        KIND kind = KIND::number;
        CHECK there = {};             // that the list holds it
        bool fails_the_call = false;  // when it is of another kind
    };
    KIND kind = KIND::ignored;
    CHECK check = {};  // items: a list of so many; chunks: an item is there; filled_in: a bool
    CHECK second_check = {};  // filled_in: True
    std::array<ITEM, 3> items = {};
    std::size_t item_count = 0;
};

constexpr ANSWER_FORM answer_of(ANSWER_FORM::KIND kind) {
    return {kind, {}, {}, {}, 0};
}

// Bytes on the free store.
class OWNED_BYTES {
public:
    OWNED_BYTES() = default;
    // A new buffer, zero-filled, even of no bytes. A secret's is overwritten before it is released.
    explicit OWNED_BYTES(std::size_t size, bool secret = false);
    // One that is about to be filled, with what is there.
    static OWNED_BYTES unfilled(std::size_t size, bool secret);
    // A copy, even of no bytes.
    static OWNED_BYTES copy_of(const unsigned char* bytes, std::size_t size, bool secret = false);
    ~OWNED_BYTES();
    OWNED_BYTES(OWNED_BYTES&& other) noexcept;
    OWNED_BYTES& operator=(OWNED_BYTES&& other) noexcept;
    OWNED_BYTES(const OWNED_BYTES&) = delete;
    OWNED_BYTES& operator=(const OWNED_BYTES&) = delete;

    unsigned char* data() const { return m_data.get(); }
    std::size_t size() const { return m_size; }

    // Hands the buffer to the caller, who releases it with delete[].
    unsigned char* release();

    // The same, but null where there are no bytes.
    unsigned char* release_unless_empty() { return m_size == 0 ? nullptr : release(); }

private:
    std::unique_ptr<unsigned char[]> m_data;
    std::size_t m_size = 0;
    bool m_secret = false;
};

// What came of a call. Of the values those are there that the form asked for.
struct ANSWER {
    // Whether the function returned an object that the form accepts.
    bool success = false;
    // Whether the road came as far as calling the function.
    bool made = false;
    // The module's name; empty where the road did not come that far.
    std::string module;

    std::string text;
    std::vector<unsigned long> numbers;
    OWNED_BYTES bytes;
    std::vector<unsigned char> chunks;
};

#endif
