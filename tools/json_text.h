// JSON text (RFC 8259) of results and messages.

#ifndef TOOLS_JSON_TEXT_H
#define TOOLS_JSON_TEXT_H

#include <string>

// A text in JSON, quotes included. What is no UTF-8 becomes U+FFFD, a byte each.
std::string json_text(const std::string& text);

// Whether a text is UTF-8.
bool is_utf8(const std::string& text);

// An object that is written member by member.
class JSON_OBJECT {
public:
    JSON_OBJECT& text(const std::string& name, const std::string& value) {
        return json(name, json_text(value));
    }
    JSON_OBJECT& number(const std::string& name, long long value) {
        return json(name, std::to_string(value));
    }
    JSON_OBJECT& flag(const std::string& name, bool value) {
        return json(name, value ? "true" : "false");
    }
    // A member whose value is JSON already.
    JSON_OBJECT& json(const std::string& name, const std::string& value);
    // All members of another object.
    JSON_OBJECT& members_of(const JSON_OBJECT& other);

    std::string str() const { return "{" + m_members + "}"; }

private:
    std::string m_members;
};

#endif
