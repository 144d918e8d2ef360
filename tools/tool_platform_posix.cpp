#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>

#include "tools/tool_platform.h"

namespace {

// A descriptor that is closed at the end of its scope.
class DESCRIPTOR {
public:
    explicit DESCRIPTOR(int descriptor) : m_descriptor(descriptor) {}
    ~DESCRIPTOR() { close(); }
    DESCRIPTOR(const DESCRIPTOR&) = delete;
    DESCRIPTOR& operator=(const DESCRIPTOR&) = delete;

    bool is_open() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }
    // Whether nothing was lost.
    bool close() {
        const int descriptor = std::exchange(m_descriptor, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }

private:
    int m_descriptor;
};

// Of the last failure.
std::string reason_of_system() {
    return std::strerror(errno);
}

bool write_all(int descriptor, const void* bytes, std::size_t size) {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = ::write(descriptor, next, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            next += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    return true;
}

// Where results go: the standard output, or what it was before it was diverted.
int standard_output = STDOUT_FILENO;

std::string folder_of(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string() : file.substr(0, slash + 1);
}

// As many links as the system itself follows.
constexpr int most_links = 40;

// Makes the name of a link that of its target. False where it is no link, or on failure.
bool follow_link(std::string& file) {
    std::array<char, PATH_MAX> target = {};
    const ssize_t length = ::readlink(file.c_str(), target.data(), target.size());
    if (length < 0) {
        return false;
    }
    const std::string name(target.data(), static_cast<std::size_t>(length));
    file = name[0] == '/' ? "" : folder_of(file);
    file += name;
    return true;
}

// Follows links until `file` is the name of something else or of nothing. False on failure.
bool follow_links(std::string& file) {
    for (int links = 0; links < most_links; ++links) {
        struct stat what = {};
        if (::lstat(file.c_str(), &what) != 0) {
            return errno == ENOENT;
        }
        if (!S_ISLNK(what.st_mode)) {
            return true;
        }
        if (!follow_link(file)) {
            return false;
        }
    }
    errno = ELOOP;
    return false;
}

// The descriptor of this process that a name stands for ("/dev/stdout", "/dev/fd/5"); negative when
// it stands for none.
int descriptor_of(std::string file) {
    const std::string descriptors = "/proc/" + std::to_string(::getpid()) + "/fd";
    for (int links = 0; links < most_links; ++links) {
        const std::string link = file;
        if (!follow_link(file)) {
            return -1;
        }
        const std::string folder = folder_of(link);
        std::array<char, PATH_MAX> resolved = {};
        if (::realpath(folder.empty() ? "." : folder.c_str(), resolved.data()) != nullptr &&
            resolved.data() == descriptors) {
            return std::atoi(link.c_str() + folder.size());
        }
    }
    return -1;
}

bool is_same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

std::string write_straight(const std::string& file, const unsigned char* bytes, std::size_t size) {
    DESCRIPTOR output(::open(file.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC));
    if (!output.is_open() || !write_all(output.get(), bytes, size) || !output.close()) {
        return reason_of_system();
    }
    return std::string();
}

// Makes a new file in a folder under a name that nothing else has.
int make_temporary_file(const std::string& folder, mode_t mode, std::string& name) {
    std::random_device random;
    for (;;) {
        name = folder + ".pgm_python_" + std::to_string(random()) + "_" + std::to_string(random());
        const int descriptor =
            ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (descriptor >= 0 || errno != EEXIST) {
            return descriptor;
        }
    }
}

constexpr mode_t owner_only = S_IRUSR | S_IWUSR;
constexpr mode_t all_permissions = S_ISUID | S_ISGID | S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO;
constexpr mode_t new_file = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

// Gives a file the access control list of another. False where that has one and the new file cannot
// have it.
bool take_over_access_list(int descriptor, const std::string& replaced) {
    constexpr char attribute[] = "system.posix_acl_access";
    std::array<char, 1U << 16U> list = {};
    const ssize_t size = ::getxattr(replaced.c_str(), attribute, list.data(), list.size());
    if (size < 0) {
        return errno == ENODATA || errno == ENOTSUP;
    }
    return ::fsetxattr(descriptor, attribute, list.data(), static_cast<std::size_t>(size), 0) == 0;
}

// Gives a file the owner, as far as that is allowed, and the permissions of the one that it is to
// replace. A group or owner that stays another one gets none that were meant for the old one.
bool take_over_permissions(int descriptor, const std::string& file, const struct stat& replaced) {
    mode_t mode = replaced.st_mode & all_permissions;
    if (::fchown(descriptor, replaced.st_uid, replaced.st_gid) != 0) {
        struct stat own = {};
        if (::fstat(descriptor, &own) != 0) {
            return false;
        }
        mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
        if (own.st_gid != replaced.st_gid) {
            mode &= ~static_cast<mode_t>(S_IRWXG);
        }
    }
    if (::fchmod(descriptor, mode) != 0) {
        return false;
    }
    // With a list, what a mode shows of the group is the most that the list allows anybody.
    return take_over_access_list(descriptor, file) ||
           ::fchmod(descriptor, mode & ~static_cast<mode_t>(S_IRWXG)) == 0;
}

// `replaced` is null where nothing has the name yet.
std::string write_and_rename(const std::string& file, const unsigned char* bytes, std::size_t size,
                             const struct stat* replaced, bool secret) {
    if (replaced != nullptr && ::access(file.c_str(), W_OK) != 0) {
        return reason_of_system();
    }
    const std::string folder = folder_of(file);
    std::string temporary;
    DESCRIPTOR output(make_temporary_file(
        folder, secret || replaced != nullptr ? owner_only : new_file, temporary));
    if (!output.is_open()) {
        return reason_of_system();
    }
    const bool permitted =
        secret ? ::fchmod(output.get(), owner_only) == 0
               : replaced == nullptr || take_over_permissions(output.get(), file, *replaced);
    if (!permitted || !write_all(output.get(), bytes, size) || ::fsync(output.get()) != 0 ||
        !output.close() || ::rename(temporary.c_str(), file.c_str()) != 0) {
        std::string reason = reason_of_system();
        ::unlink(temporary.c_str());
        return reason;
    }
    // The name is on the disk, too, where the file system can be told to.
    const DESCRIPTOR opened(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.is_open()) {
        ::fsync(opened.get());
    }
    return std::string();
}

}  // namespace

namespace tool_platform {

std::vector<std::string> command_line(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

void set_locale() {
    std::setlocale(LC_ALL, "");
}

void set_environment(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
}

unsigned int mask_of_new_files() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

void set_mask_of_new_files(unsigned int mask) {
    ::umask(static_cast<mode_t>(mask));
}

bool standard_error_is_terminal() {
    return ::isatty(STDERR_FILENO) != 0;
}

bool standard_output_is_terminal() {
    return ::isatty(standard_output) != 0;
}

std::string divert_standard_output() {
    if (standard_output != STDOUT_FILENO) {
        return std::string();
    }
    constexpr int after_standard_streams = 3;
    const int kept = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, after_standard_streams);
    if (kept < 0) {
        return reason_of_system();
    }
    if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        std::string reason = reason_of_system();
        ::close(kept);
        return reason;
    }
    standard_output = kept;
    return std::string();
}

std::string write_to_standard_output(const void* bytes, std::size_t size, bool /*as_text*/) {
    return write_all(standard_output, bytes, size) ? std::string() : reason_of_system();
}

std::FILE* open_input(const std::string& file, std::string& reason) {
    std::FILE* stream = nullptr;
    if (file == "-") {
        const int kept = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const DESCRIPTOR nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (kept >= 0 && nothing.is_open() && ::dup2(nothing.get(), STDIN_FILENO) >= 0) {
            stream = ::fdopen(kept, "rb");
        }
    } else {
        stream = std::fopen(file.c_str(), "rbe");
        struct stat what = {};
        if (stream != nullptr && ::fstat(::fileno(stream), &what) == 0 && S_ISDIR(what.st_mode)) {
            std::fclose(stream);
            stream = nullptr;
            errno = EISDIR;
        }
    }
    if (stream == nullptr) {
        reason = reason_of_system();
    }
    return stream;
}

std::string write_file(const std::string& file, const unsigned char* bytes, std::size_t size,
                       SECRECY secrecy) {
    const bool secret = secrecy == SECRECY::SECRET;
    // What has been written there before stays, and what follows goes behind it.
    if (const int descriptor = descriptor_of(file); descriptor >= 0) {
        return write_all(descriptor == STDOUT_FILENO ? standard_output : descriptor, bytes, size)
                   ? std::string()
                   : reason_of_system();
    }
    std::string target = file;
    struct stat named = {};
    if (::stat(file.c_str(), &named) != 0) {
        if (errno != ENOENT || !follow_links(target)) {
            return reason_of_system();
        }
        return write_and_rename(target, bytes, size, nullptr, secret);
    }
    // A link that the system itself makes, such as those of open files, may lead elsewhere than its
    // text tells.
    struct stat found = {};
    if (!S_ISREG(named.st_mode) || !follow_links(target) || ::lstat(target.c_str(), &found) != 0 ||
        !is_same_file(named, found)) {
        return write_straight(file, bytes, size);
    }
    return write_and_rename(target, bytes, size, &found, secret);
}

std::string file_that_holds(const void* address) {
    Dl_info info = {};
    if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return std::string();
    }
    char* const resolved = ::realpath(info.dli_fname, nullptr);
    std::string file = resolved == nullptr ? info.dli_fname : resolved;
    std::free(resolved);  // NOLINT(cppcoreguidelines-no-malloc): realpath has allocated it
    return file;
}

void leave_if_forked(int status) {
    static const pid_t first = ::getpid();
    if (::getpid() != first) {
        ::_exit(status);
    }
}

}  // namespace tool_platform
