#include "zel/zel_fio/zel_fio.h"

#include <algorithm>
#include <utility>

#include "zel/zel_fio/fio_platform.h"

namespace {

// Drops "." components, doubled separators and separators at the end.
std::string tidied(const std::string& path) {
    const std::size_t root = fio_platform::root_length(path);
    std::string result = path.substr(0, root);
    std::size_t at = root;
    while (at < path.size()) {
        std::size_t end = path.find('/', at);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string component = path.substr(at, end - at);
        if (!component.empty() && component != ".") {
            if (result.size() > root) {
                result += '/';
            }
            result += component;
        }
        at = end + 1;
    }
    return result;
}

}  // namespace

bool FIO_FILE_SYSTEM::exists(const std::string& name) {
    // A name with a zero byte inside names no file.
    return name.find('\0') == std::string::npos && exists(name.c_str());
}

bool FIO_FILE_SYSTEM::exists(const char* name) {
    return name != nullptr && *name != '\0' && fio_platform::is_file(name);
}

std::string FIO_FILE_SYSTEM::program_directory() {
    const std::string file = fio_platform::program_file();
    return file.empty() ? file : FIO_PATH(file).full_directory();
}

FIO_PATH::FIO_PATH(std::string path)
    : m_path(fio_platform::with_forward_slashes(std::move(path))) {}

void FIO_PATH::become_absolute(const std::string& base) {
    if (!fio_platform::is_absolute(m_path)) {
        const std::string start = base.empty() ? fio_platform::current_directory()
                                               : fio_platform::with_forward_slashes(base);
        if (!start.empty()) {
            m_path = fio_platform::join(start, m_path);
        }
    }
    m_path = tidied(m_path);
}

std::string FIO_PATH::fullpath() const {
    return m_path;
}

std::string FIO_PATH::full_directory() const {
    const std::size_t root = fio_platform::root_length(m_path);
    const std::size_t slash = m_path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    // Doubled separators before the last component are none of the folder's.
    std::size_t end = slash;
    while (end > root && m_path[end - 1] == '/') {
        --end;
    }
    return m_path.substr(0, std::max(end, root));
}

std::string FIO_PATH::filename() const {
    const std::size_t slash = m_path.rfind('/');
    return slash == std::string::npos ? m_path : m_path.substr(slash + 1);
}
