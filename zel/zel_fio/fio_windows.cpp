#include <algorithm>

#include "zel/zel_fio/fio_platform.h"
#include "zel/zel_fio/fio_text_windows.h"

namespace fio_platform {

namespace {

bool names_drive(const std::string& path) {
    return path.size() >= 2 && path[1] == ':' &&
           ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
}

bool same_drive(const std::string& one, const std::string& other) {
    return names_drive(one) && names_drive(other) && (one[0] | 0x20) == (other[0] | 0x20);
}

// The position after the component that starts at `at`.
std::size_t component_end(const std::string& path, std::size_t at) {
    return std::min(path.find('/', at), path.size());
}

bool starts_with(const std::string& path, const char* start) {
    return path.rfind(start, 0) == 0;
}

}  // namespace

bool is_file(const char* name) {
    const std::wstring wide = to_wide(name);
    const DWORD attributes =
        wide.empty() ? INVALID_FILE_ATTRIBUTES : ::GetFileAttributesW(wide.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::string current_directory() {
    return with_forward_slashes(to_utf8(wide_text_from(
        [](wchar_t* buffer, DWORD size) { return ::GetCurrentDirectoryW(size, buffer); })));
}

std::string program_file() {
    return with_forward_slashes(to_utf8(wide_text_from(
        [](wchar_t* buffer, DWORD size) { return ::GetModuleFileNameW(nullptr, buffer, size); })));
}

// The prefixes that switch off the reading of a path do not go together with forward slashes.
std::string with_forward_slashes(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    if (starts_with(path, "//?/UNC/")) {
        return "/" + path.substr(7);
    }
    return starts_with(path, "//?/") ? path.substr(4) : path;
}

std::size_t root_length(const std::string& path) {
    if (starts_with(path, "//")) {
        const std::size_t share = std::min(component_end(path, 2) + 1, path.size());
        return std::min(component_end(path, share) + 1, path.size());
    }
    if (names_drive(path)) {
        return path.size() > 2 && path[2] == '/' ? 3 : 2;
    }
    return !path.empty() && path[0] == '/' ? 1 : 0;
}

bool is_absolute(const std::string& path) {
    return starts_with(path, "//") || (names_drive(path) && root_length(path) == 3);
}

std::string join(const std::string& base, const std::string& path) {
    if (names_drive(path)) {
        const std::string rest = path.substr(2);
        return same_drive(base, path) ? base + "/" + rest : path.substr(0, 2) + "/" + rest;
    }
    if (!path.empty() && path[0] == '/') {
        return base.substr(0, root_length(base)) + path;
    }
    return base + "/" + path;
}

}  // namespace fio_platform
