// Texts between UTF-8, which the suite uses, and UTF-16, which the wide interfaces of Windows use.
// Internal: for files of the Windows platform only.

#ifndef ZEL_ZEL_FIO_FIO_TEXT_WINDOWS_H
#define ZEL_ZEL_FIO_FIO_TEXT_WINDOWS_H

#include <windows.h>

#include <string>

// Empty also when the text is no valid UTF-8.
inline std::wstring to_wide(const std::string& text) {
    const int size = static_cast<int>(text.size());
    const int length =
        ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, &wide[0], length);
    return wide;
}

// A surrogate without its other half becomes U+FFFD.
inline std::string to_utf8(const std::wstring& wide) {
    const int length = static_cast<int>(wide.size());
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, &text[0], size, nullptr, nullptr);
    return text;
}

// What an interface gives that takes a buffer and its size and returns the text's length, or, when
// the buffer is too small, at least the buffer's size.
template <typename INTERFACE>
std::wstring wide_text_from(const INTERFACE& get) {
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD size = static_cast<DWORD>(buffer.size());
        const DWORD length = get(&buffer[0], size);
        if (length < size) {
            buffer.resize(length);
            return buffer;
        }
        buffer.resize(length > size ? length : size * 2);
    }
}

#endif
