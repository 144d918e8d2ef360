// Programs of this compiler use another C runtime than Python does, with descriptors of its own.
// Where a test redirects standard output or standard error, Python's go with them.

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdint>

#include "tests/pythons_runtime_windows.h"

namespace {

typedef int __cdecl OPEN_OSFHANDLE(std::intptr_t handle, int flags);
typedef int __cdecl DUP2(int from, int to);
typedef int __cdecl CLOSE(int descriptor);
typedef int __cdecl FFLUSH(void* stream);

void redirect_python(int descriptor) {
    const HANDLE process = ::GetCurrentProcess();
    const HANDLE handle = reinterpret_cast<HANDLE>(::_get_osfhandle(descriptor));
    HANDLE copy = nullptr;
    of_pythons_runtime<FFLUSH>("fflush")(nullptr);
    if (::DuplicateHandle(process, handle, process, &copy, 0, TRUE, DUPLICATE_SAME_ACCESS) != 0) {
        const int opened = of_pythons_runtime<OPEN_OSFHANDLE>("_open_osfhandle")(
            reinterpret_cast<std::intptr_t>(copy), _O_BINARY);
        of_pythons_runtime<DUP2>("_dup2")(opened, descriptor);
        of_pythons_runtime<CLOSE>("_close")(opened);
    }
}

}  // namespace

extern "C" {

// The linker makes every call of dup2 one of __wrap_dup2.
int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to);

int __wrap_dup2(int from, int to) {
    const int result = __real_dup2(from, to);
    if (result == 0 && (to == 1 || to == 2)) {
        redirect_python(to);
    }
    return result;
}
}
