#include "pgm/pgm_python/bridge_values.h"

#include <cstring>
#include <utility>

#include "zel/zel_mem/zel_mem.h"

namespace {

ARGUMENT argument_of(ARGUMENT::KIND kind) {
    ARGUMENT argument;
    argument.kind = kind;
    return argument;
}

ARGUMENT argument_of_bytes(ARGUMENT::KIND kind, const unsigned char* bytes, std::size_t size) {
    ARGUMENT argument = argument_of(kind);
    argument.bytes = bytes;
    argument.size = size;
    return argument;
}

}  // namespace

ARGUMENT text_argument(const std::string& text) {
    ARGUMENT argument = argument_of(ARGUMENT::KIND::text);
    argument.text = &text;
    return argument;
}

ARGUMENT number_argument(unsigned long number) {
    ARGUMENT argument = argument_of(ARGUMENT::KIND::number);
    argument.number = static_cast<std::int32_t>(low_32_bits(number));
    return argument;
}

ARGUMENT hex_argument(const unsigned char* bytes, std::size_t size) {
    return argument_of_bytes(ARGUMENT::KIND::hex, bytes, size);
}

ARGUMENT bytes_argument(const unsigned char* bytes, std::size_t size) {
    return argument_of_bytes(ARGUMENT::KIND::bytes, bytes, size);
}

ARGUMENT flag_argument(bool flag) {
    ARGUMENT argument = argument_of(ARGUMENT::KIND::flag);
    argument.flag = flag;
    return argument;
}

ARGUMENT map_argument(const std::map<std::string, std::string>& map) {
    ARGUMENT argument = argument_of(ARGUMENT::KIND::map);
    argument.map = &map;
    return argument;
}

ARGUMENT filled_in_argument(std::size_t size) {
    return argument_of_bytes(ARGUMENT::KIND::filled_in, nullptr, size);
}

OWNED_BYTES::OWNED_BYTES(std::size_t size, bool secret)
    : m_data(new unsigned char[size]()), m_size(size), m_secret(secret) {}

OWNED_BYTES OWNED_BYTES::unfilled(std::size_t size, bool secret) {
    OWNED_BYTES bytes;
    bytes.m_data.reset(new unsigned char[size]);
    bytes.m_size = size;
    bytes.m_secret = secret;
    return bytes;
}

OWNED_BYTES OWNED_BYTES::copy_of(const unsigned char* bytes, std::size_t size, bool secret) {
    OWNED_BYTES copy = unfilled(size, secret);
    if (size > 0) {
        std::memcpy(copy.data(), bytes, size);
    }
    return copy;
}

OWNED_BYTES::~OWNED_BYTES() {
    if (m_secret && m_data != nullptr) {
        MEM_DETAIL::overwrite(m_data.get(), m_size);
    }
}

OWNED_BYTES::OWNED_BYTES(OWNED_BYTES&& other) noexcept
    : m_data(std::move(other.m_data)),
      m_size(std::exchange(other.m_size, 0)),
      m_secret(std::exchange(other.m_secret, false)) {}

OWNED_BYTES& OWNED_BYTES::operator=(OWNED_BYTES&& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    std::swap(m_secret, other.m_secret);
    return *this;
}

unsigned char* OWNED_BYTES::release() {
    m_size = 0;
    return m_data.release();
}
