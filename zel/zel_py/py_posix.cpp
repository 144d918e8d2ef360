#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "zel/zel_py/py_platform.h"

namespace py_platform {

namespace {

bool replaced = false;

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

void ignore_broken_pipes() {
    struct sigaction current = {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
        current.sa_handler == SIG_DFL) {
        replaced = ::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    }
}

void restore_broken_pipes() {
    if (replaced) {
        ::signal(SIGPIPE, SIG_DFL);
        replaced = false;
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
