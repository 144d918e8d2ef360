// The wide argument vector: made of any texts and released, whole or with a slot missing.
//
// Input: a byte (1: reports that may return do so), a byte (a slot), a byte (a number of slots), a
// byte (the number of texts), the first text, the others.

#include <clocale>
#include <cwchar>

#include "pgm/pgm_python/interpreter_session.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/pgm_python_mgr_test.h"

namespace {

// The characters at the beginning of a text that are UTF-8 beyond doubt, up to its first zero byte;
// `whole` tells whether that is all of it.
std::vector<std::uint32_t> decoded(const std::string& text, bool& whole) {
    std::vector<std::uint32_t> characters;
    const std::string bytes = up_to_zero(text);
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::uint32_t first = static_cast<unsigned char>(bytes[at]);
        std::size_t length = 1;
        std::uint32_t character = first;
        std::uint32_t least = 0;
        if (first >= 0xC0 && first < 0xE0) {
            length = 2, character = first & 0x1F, least = 0x80;
        } else if (first >= 0xE0 && first < 0xF0) {
            length = 3, character = first & 0x0F, least = 0x800;
        } else if (first >= 0xF0 && first < 0xF8) {
            length = 4, character = first & 0x07, least = 0x10000;
        } else if (first >= 0x80) {
            break;
        }
        std::size_t used = 1;
        while (used < length && at + used < bytes.size() &&
               (static_cast<unsigned char>(bytes[at + used]) & 0xC0) == 0x80) {
            character = character << 6 | (static_cast<unsigned char>(bytes[at + used]) & 0x3FU);
            ++used;
        }
        if (used < length || character < least || character > 0x10FFFF ||
            (character >= 0xD800 && character < 0xE000)) {
            break;
        }
        characters.push_back(character);
        at += length;
    }
    whole = at == bytes.size();
    return characters;
}

// A slot made of a text: as many characters as the text has bytes, and a zero.
void check_slot(const wchar_t* slot, const std::string& text) {
    MUST_HOLD(slot != nullptr);
    bool whole = false;
    const std::vector<std::uint32_t> characters = decoded(text, whole);
    for (std::size_t index = 0; index < characters.size(); ++index) {
        MUST_HOLD(static_cast<std::uint32_t>(slot[index]) == characters[index]);
    }
    for (std::size_t index = characters.size(); index <= text.size(); ++index) {
        MUST_HOLD(slot[index] == L'\0' || (!whole && index < text.size()));
    }
}

void release(wchar_t** slots, int count) {
    for (int index = 0; index < count; ++index) {
        delete[] slots[index];
    }
    delete[] slots;
}

// Releases a vector, `missing` of its slots taken out before unless it is beyond.
void check_release(wchar_t** slots, int count, int missing) {
    FUZZ_RECEIVER receiver;
    if (missing < count) {
        delete[] slots[missing];
        slots[missing] = nullptr;
    }
    try {
        PGM_PYTHON_MGR_TEST::delete_wchar_t(count, slots);
        MUST_HOLD(missing >= count);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
        MUST_HOLD(missing < count);
        MUST_HOLD((receiver.errors == FUZZ_RECEIVER::ERRORS{{1728, "wcharv[index] != NULL"}}));
        for (int index = 0; index < missing; ++index) {
            MUST_HOLD(slots[index] == nullptr);
        }
        release(slots, count);
    }
}

void check_release_of_none() {
    FUZZ_RECEIVER receiver;
    PGM_PYTHON_MGR_TEST::delete_wchar_t(0, nullptr);
    MUST_HOLD(receiver.errors.empty());
    wchar_t* slot = nullptr;
    try {
        PGM_PYTHON_MGR_TEST::delete_wchar_t(0, &slot);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
    }
    MUST_HOLD((receiver.errors == FUZZ_RECEIVER::ERRORS{{1735, "wcharv == NULL"}}));
    PGM_PYTHON_MGR_TEST::delete_wchar_t(-1, new wchar_t*[1]());
}

// `texts` in a vector of `count` slots, the first text dropped when it is empty.
void check_fill(std::vector<std::string> texts, int count, bool returning) {
    const std::string first = texts.front();
    texts.erase(texts.begin());
    const std::vector<std::string> args = texts;
    if (!first.empty()) {
        texts.insert(texts.begin(), first);
    }
    const bool fits = count == static_cast<int>(texts.size());
    FUZZ_RECEIVER receiver;
    if (returning) {
        receiver.returning_lines = {1705};
    }
    try {
        wchar_t** const slots = fill_wide_vector(first, args, count);
        MUST_HOLD(fits || returning);
        for (int index = 0; index < count; ++index) {
            const std::size_t place = static_cast<std::size_t>(index);
            if (place < texts.size()) {
                check_slot(slots[index], texts[place]);
            } else {
                MUST_HOLD(slots[index] == nullptr);
            }
        }
        release(slots, count);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
        MUST_HOLD(!fits && !returning);
    }
    MUST_HOLD(receiver.errors ==
              (fits ? FUZZ_RECEIVER::ERRORS{} : FUZZ_RECEIVER::ERRORS{{1705, "index == wcharc"}}));
}

void check_conversion(const std::string& first, const std::vector<std::string>& args,
                      bool returning, int missing) {
    std::size_t empty_one = 0;
    while (empty_one < args.size() && !args[empty_one].empty()) {
        ++empty_one;
    }
    FUZZ_RECEIVER::ERRORS expected;
    if (empty_one < args.size()) {
        expected.emplace_back(
            1680, "Argument at index " + std::to_string(empty_one) + " cannot be empty string");
    }
    std::vector<std::string> texts = args;
    if (!first.empty()) {
        texts.insert(texts.begin(), first);
    }

    int count = -1;
    wchar_t** slots = nullptr;
    {
        FUZZ_RECEIVER receiver;
        if (returning) {
            receiver.returning_lines = {1680};
        }
        try {
            slots = PGM_PYTHON_MGR_TEST::convert_char_to_wchar_t(first, args, count);
            MUST_HOLD(expected.empty() || returning);
        } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
            MUST_HOLD(!expected.empty() && !returning);
            MUST_HOLD(receiver.errors == expected);
            return;
        }
        MUST_HOLD(receiver.errors == expected);
    }
    MUST_HOLD(count == static_cast<int>(texts.size()));
    MUST_HOLD((slots == nullptr) == texts.empty());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        check_slot(slots[index], texts[index]);
    }
    check_release(slots, count, missing);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    MUST_HOLD(std::setlocale(LC_ALL, "C.UTF-8") != nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    const bool returning = (input.byte() & 1) != 0;
    const int missing = static_cast<int>(input.below(16));
    const int slots = static_cast<int>(input.below(16));
    std::vector<std::string> texts(input.below(12) + 1);
    for (std::string& text : texts) {
        text = input.text();
    }
    check_conversion(texts.front(), {texts.begin() + 1, texts.end()}, returning, missing);
    check_fill(texts, slots, returning);
    check_release_of_none();
    return 0;
}
