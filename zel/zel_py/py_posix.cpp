#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <signal.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "zel/zel_py/py_platform.h"

namespace py_platform {

namespace {

// The signals whose handling a program may change are numbered from 1.
constexpr int signal_numbers = NSIG;
struct NOTED {
    bool known = false;
    struct sigaction action = {};
};
std::array<NOTED, signal_numbers> noted;

bool same(const struct sigaction& one, const struct sigaction& other) {
    // What lies behind the bits of the signals is not set.
    constexpr std::size_t mask_size = (signal_numbers - 1 + 7) / 8;
    static_assert(mask_size <= sizeof(one.sa_mask));
    // Handlers of both kinds lie in the same place.
    return one.sa_flags == other.sa_flags &&
           std::memcmp(&one.sa_mask, &other.sa_mask, mask_size) == 0 &&
           ((one.sa_flags & SA_SIGINFO) != 0 ? one.sa_sigaction == other.sa_sigaction
                                             : one.sa_handler == other.sa_handler);
}

bool is_set(const char* value) {
    return value != nullptr && *value != '\0';
}

// Whether `folder` ("/usr/lib") holds a standard library of the linked version.
bool holds_library(const std::filesystem::path& folder) {
    const std::string major = std::to_string(PY_MAJOR_VERSION);
    const std::string minor = std::to_string(PY_MINOR_VERSION);
    std::string name = "python" + major + "." + minor;
#if defined(Py_GIL_DISABLED)
    name += "t";
#endif
    std::error_code ignored;
    return std::filesystem::exists(folder / name / "encodings", ignored) ||
           std::filesystem::exists(folder / ("python" + major + minor + ".zip"), ignored);
}

}  // namespace

void note_signal_handlers() {
    for (int number = 1; number < signal_numbers; ++number) {
        NOTED& one = noted[static_cast<std::size_t>(number)];
        one.known = ::sigaction(number, nullptr, &one.action) == 0;
    }
}

void restore_signal_handlers() {
    for (int number = 1; number < signal_numbers; ++number) {
        const NOTED& one = noted[static_cast<std::size_t>(number)];
        struct sigaction current = {};
        if (one.known && ::sigaction(number, nullptr, &current) == 0 &&
            !same(one.action, current)) {
            ::sigaction(number, &one.action, nullptr);
        }
    }
}

void ignore_broken_pipes() {
    struct sigaction current = {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
        current.sa_handler == SIG_DFL) {
        ::signal(SIGPIPE, SIG_IGN);
    }
}

bool home_may_hold_library() {
    const char* const home = std::getenv("PYTHONHOME");
    if (!is_set(home) || is_set(std::getenv("PYTHONPATH"))) {
        return true;
    }
    // The platform-independent part comes first. What lies between it and the library ("lib",
    // "lib64") is decided where Python is built.
    const std::string prefix(home, std::strcspn(home, ":"));
    std::error_code error;
    for (std::filesystem::directory_iterator entry(prefix, error), end; !error && entry != end;
         entry.increment(error)) {
        if (holds_library(entry->path())) {
            return true;
        }
    }
    return false;
}

}  // namespace py_platform
