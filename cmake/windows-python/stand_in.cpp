// Stands in for the Python DLL where there is none: lets programs start, and ends them as soon as
// they start an interpreter.

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int skipped = 77;

}  // namespace

extern "C" {

void* no_object[64] = {};

int no_interpreter_is_running() {
    return 0;
}

[[noreturn]] void no_interpreter() {
    std::fputs("skipped: needs a Python for Windows, and none is at hand\n", stderr);
    std::fflush(nullptr);
    std::_Exit(skipped);
}
}
