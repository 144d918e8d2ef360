#include <signal.h>

#include "zel/zel_py/py_platform.h"

namespace py_platform {

namespace {

bool replaced = false;

}  // namespace

void ignore_broken_pipes() {
    struct sigaction current;
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

}  // namespace py_platform
