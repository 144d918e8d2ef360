#include <pthread.h>

#include <memory>

#include "zel/zel_thr/thr_platform.h"

namespace thr_platform {

struct SYSTEM_THREAD {
    pthread_t thread;
};

namespace {

void* run(void* state) {
    thr_thread_main(static_cast<THR_THREAD_STATE*>(state));
    return nullptr;
}

}  // namespace

SYSTEM_THREAD* start(THR_THREAD_STATE* state) {
    std::unique_ptr<SYSTEM_THREAD> thread(new SYSTEM_THREAD);
    if (::pthread_create(&thread->thread, nullptr, run, state) != 0) {
        return nullptr;
    }
    return thread.release();
}

void join(SYSTEM_THREAD* thread) {
    ::pthread_join(thread->thread, nullptr);
    delete thread;
}

void kill(SYSTEM_THREAD* thread) {
    ::pthread_cancel(thread->thread);
}

void abandon(SYSTEM_THREAD* thread) {
    ::pthread_detach(thread->thread);
    delete thread;
}

}  // namespace thr_platform
