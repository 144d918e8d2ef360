#include <windows.h>

#include <array>
#include <csignal>
#include <cstddef>

#include "zel/zel_py/py_platform.h"

namespace py_platform {

namespace {

typedef void (*HANDLER)(int);
typedef HANDLER (*SIGNAL)(int, HANDLER);

constexpr std::array<int, 7> signals = {SIGABRT, SIGFPE,  SIGILL,  SIGINT,
                                        SIGSEGV, SIGTERM, SIGBREAK};
std::array<HANDLER, signals.size()> handlers = {};

// The C runtime that Python uses keeps handlers of its own.
SIGNAL pythons_signal() {
    const HMODULE runtime = ::GetModuleHandleW(L"ucrtbase.dll");
    return runtime == nullptr ? nullptr
                              : reinterpret_cast<SIGNAL>(
                                    reinterpret_cast<void*>(::GetProcAddress(runtime, "signal")));
}

// Not every runtime can tell a handler without setting another, so it is set again, as Python does.
HANDLER handler_of(SIGNAL signal, int number) {
    const HANDLER handler = signal(number, SIG_IGN);
    if (handler != SIG_ERR) {
        signal(number, handler);
    }
    return handler;
}

}  // namespace

void note_signal_handlers() {
    const SIGNAL signal = pythons_signal();
    for (std::size_t index = 0; index < signals.size(); ++index) {
        handlers[index] = signal == nullptr ? SIG_ERR : handler_of(signal, signals[index]);
    }
}

void restore_signal_handlers() {
    const SIGNAL signal = pythons_signal();
    for (std::size_t index = 0; signal != nullptr && index < signals.size(); ++index) {
        if (handlers[index] != SIG_ERR && handler_of(signal, signals[index]) != handlers[index]) {
            signal(signals[index], handlers[index]);
        }
    }
}

// Here a write to a closed connection only fails.
void ignore_broken_pipes() {}

// Here Python looks beside itself and into the registry, too.
bool home_may_hold_library() {
    return true;
}

}  // namespace py_platform
