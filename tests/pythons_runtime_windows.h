// The C runtime that Python for Windows uses. A program may use another, with an environment and
// descriptors of its own.

#ifndef TESTS_PYTHONS_RUNTIME_WINDOWS_H
#define TESTS_PYTHONS_RUNTIME_WINDOWS_H

#include <windows.h>

// A function of that runtime by its name; null when it has none of that name.
template <typename FUNCTION>
FUNCTION* of_pythons_runtime(const char* name) {
    const HMODULE runtime = ::LoadLibraryW(L"ucrtbase.dll");
    return reinterpret_cast<FUNCTION*>(reinterpret_cast<void*>(::GetProcAddress(runtime, name)));
}

#endif
