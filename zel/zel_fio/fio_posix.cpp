#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "zel/zel_fio/fio_platform.h"

namespace fio_platform {

bool is_file(const char* name) {
    struct stat status = {};
    return ::stat(name, &status) == 0 && !S_ISDIR(status.st_mode);
}

std::string current_directory() {
    std::vector<char> buffer(PATH_MAX);
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) {
            return std::string();
        }
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

std::string program_file() {
    std::vector<char> buffer(PATH_MAX);
    for (;;) {
        const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length < 0) {
            return std::string();
        }
        const std::size_t size = static_cast<std::size_t>(length);
        if (size < buffer.size()) {
            return std::string(buffer.data(), size);
        }
        buffer.resize(buffer.size() * 2);
    }
}

std::string with_forward_slashes(std::string path) {
    return path;
}

std::size_t root_length(const std::string& path) {
    return !path.empty() && path[0] == '/' ? 1 : 0;
}

bool is_absolute(const std::string& path) {
    return root_length(path) != 0;
}

std::string join(const std::string& base, const std::string& path) {
    return base + "/" + path;
}

}  // namespace fio_platform
