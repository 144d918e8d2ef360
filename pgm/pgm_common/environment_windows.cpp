#include "pgm/pgm_common/environment.h"
#include "zel/zel_fio/fio_text_windows.h"

// The process may hold several C runtimes, each with a copy of the environment; the system's own is
// the one that every change reaches.
std::string environment_value(const char* name) {
    const std::wstring wide_name = to_wide(name);
    return to_utf8(wide_text_from([&wide_name](wchar_t* buffer, DWORD size) {
        return ::GetEnvironmentVariableW(wide_name.c_str(), buffer, size);
    }));
}

std::vector<std::string> environment_entries() {
    std::vector<std::string> entries;
    wchar_t* const block = ::GetEnvironmentStringsW();
    for (const wchar_t* entry = block; entry != nullptr && *entry != L'\0';) {
        const std::wstring text = entry;
        entry += text.size() + 1;
        // The system keeps the current folder of each drive in names that begin with "=".
        if (text.front() != L'=') {
            entries.push_back(to_utf8(text));
        }
    }
    if (block != nullptr) {
        ::FreeEnvironmentStringsW(block);
    }
    return entries;
}
