#include "tools/json_text.h"

#include <cstddef>
#include <cstdio>

namespace {

// The length of the UTF-8 sequence that begins at `place`; 0 when there is no valid one.
std::size_t sequence_length(const std::string& text, std::size_t place) {
    const auto byte = [&text](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
    };
    const auto continues = [&byte](std::size_t at) { return (byte(at) & 0xC0U) == 0x80U; };
    const unsigned first = byte(place);
    const unsigned second = byte(place + 1);
    if (first < 0x80U) {
        return 1;
    }
    if (first >= 0xC2U && first <= 0xDFU) {
        return continues(place + 1) ? 2 : 0;
    }
    if (first >= 0xE0U && first <= 0xEFU) {
        // Neither longer than need be nor half of a surrogate pair.
        const bool fits = (first != 0xE0U || second >= 0xA0U) && (first != 0xEDU || second < 0xA0U);
        return fits && continues(place + 1) && continues(place + 2) ? 3 : 0;
    }
    if (first >= 0xF0U && first <= 0xF4U) {
        const bool fits = (first != 0xF0U || second >= 0x90U) && (first != 0xF4U || second < 0x90U);
        return fits && continues(place + 1) && continues(place + 2) && continues(place + 3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

bool is_utf8(const std::string& text) {
    std::size_t place = 0;
    std::size_t length = 1;
    while (place < text.size() && length > 0) {
        length = sequence_length(text, place);
        place += length;
    }
    return length > 0;
}

std::string json_text(const std::string& text) {
    std::string json = "\"";
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t length = sequence_length(text, place);
        const unsigned char byte = static_cast<unsigned char>(text[place]);
        if (length == 0) {
            json += "\\ufffd";
        } else if (byte == '"' || byte == '\\') {
            json += {'\\', text[place]};
        } else if (byte == '\n') {
            json += "\\n";
        } else if (byte < 0x20U || byte == 0x7FU) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
            json += escaped;
        } else {
            json.append(text, place, length);
        }
        place += length == 0 ? 1 : length;
    }
    return json + "\"";
}

JSON_OBJECT& JSON_OBJECT::json(const std::string& name, const std::string& value) {
    m_members += (m_members.empty() ? "" : ",") + json_text(name) + ":" + value;
    return *this;
}

JSON_OBJECT& JSON_OBJECT::members_of(const JSON_OBJECT& other) {
    m_members += (m_members.empty() || other.m_members.empty() ? "" : ",") + other.m_members;
    return *this;
}
