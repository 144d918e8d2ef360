#include <process.h>
#include <windows.h>

#include <memory>

#include "zel/zel_thr/thr_platform.h"

namespace thr_platform {

struct SYSTEM_THREAD {
    HANDLE thread;
};

namespace {

constexpr DWORD kill_limit_ms = 1000;

unsigned __stdcall run(void* state) {
    thr_thread_main(static_cast<THR_THREAD_STATE*>(state));
    return 0;
}

}  // namespace

SYSTEM_THREAD* start(THR_THREAD_STATE* state) {
    std::unique_ptr<SYSTEM_THREAD> thread(new SYSTEM_THREAD);
    thread->thread = reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, 0, run, state, 0, nullptr));
    return thread->thread == nullptr ? nullptr : thread.release();
}

void join(SYSTEM_THREAD* thread) {
    ::WaitForSingleObject(thread->thread, INFINITE);
    abandon(thread);
}

// The thread does not unwind: nothing of its own runs any more.
void kill(SYSTEM_THREAD* thread) {
    ::TerminateThread(thread->thread, 0);
    ::WaitForSingleObject(thread->thread, kill_limit_ms);
}

void abandon(SYSTEM_THREAD* thread) {
    ::CloseHandle(thread->thread);
    delete thread;
}

}  // namespace thr_platform
