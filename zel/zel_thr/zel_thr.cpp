#include "zel/zel_thr/zel_thr.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "zel/zel_thr/thr_platform.h"

struct THR_THREAD_STATE {
    THR_FUNCTION function = nullptr;
    void* argument = nullptr;
    thr_platform::SYSTEM_THREAD* system_thread = nullptr;

    std::mutex mutex;  // guards what follows
    std::condition_variable ended;
    bool running = true;
    bool terminated = false;
    void (*unblock)(void*) = nullptr;
    void* unblock_context = nullptr;

    bool wait_until_ended(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(mutex);
        return ended.wait_for(lock, time, [this] { return !running; });
    }
};

namespace {

constexpr std::chrono::milliseconds unblock_interval{5};
constexpr std::chrono::milliseconds cooperation_limit{1000};
constexpr std::chrono::milliseconds kill_limit{1000};

thread_local THR_THREAD_STATE* current_thread = nullptr;

// Asks the thread to leave its blocking call, again and again, until it has ended or the time for
// that is over.
bool ends_by_itself(THR_THREAD_STATE& thread) {
    const auto limit = std::chrono::steady_clock::now() + cooperation_limit;
    do {
        {
            const std::lock_guard<std::mutex> lock(thread.mutex);
            thread.terminated = true;
            if (thread.unblock != nullptr) {
                thread.unblock(thread.unblock_context);
            }
        }
        if (thread.wait_until_ended(unblock_interval)) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < limit);
    return false;
}

}  // namespace

void thr_thread_main(THR_THREAD_STATE* state) {
    struct END_NOTICE {
        THR_THREAD_STATE* state;
        explicit END_NOTICE(THR_THREAD_STATE* ending) : state(ending) {}
        END_NOTICE(const END_NOTICE&) = delete;
        END_NOTICE& operator=(const END_NOTICE&) = delete;
        ~END_NOTICE() {
            const std::lock_guard<std::mutex> lock(state->mutex);
            state->running = false;
            state->ended.notify_all();
        }
    };
    const END_NOTICE notice(state);
    current_thread = state;
    try {
        state->function(state->argument);
    } catch (...) {
        // Nobody waits for what a thread throws. What is no exception of the language is the system
        // cancelling the thread.
        if (std::current_exception() == nullptr) {
            throw;
        }
    }
}

THR_THREAD thr_thread_create(THR_FUNCTION function, void* argument, int /*options*/) {
    std::unique_ptr<THR_THREAD_STATE> thread(new THR_THREAD_STATE);
    thread->function = function;
    thread->argument = argument;
    thread->system_thread = thr_platform::start(thread.get());
    return thread->system_thread == nullptr ? nullptr : thread.release();
}

int thr_thread_is_running(THR_THREAD thread) {
    if (thread == nullptr) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(thread->mutex);
    return thread->running ? 1 : 0;
}

void thr_thread_wait(THR_THREAD thread) {
    if (thread == nullptr) {
        return;
    }
    thr_platform::join(thread->system_thread);
    delete thread;
}

void thr_thread_terminate_and_possibly_crash(THR_THREAD thread) {
    if (thread == nullptr) {
        return;
    }
    if (!ends_by_itself(*thread)) {
        thr_platform::kill(thread->system_thread);
        if (!thread->wait_until_ended(kill_limit)) {
            thr_platform::abandon(thread->system_thread);
            return;  // the thread may still look at its state, which therefore stays
        }
    }
    thr_thread_wait(thread);
}

void thr_msleep(unsigned long milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

THR_BLOCKING_SCOPE::THR_BLOCKING_SCOPE(void (*unblock)(void* context), void* context) {
    if (THR_THREAD_STATE* const thread = current_thread) {
        const std::lock_guard<std::mutex> lock(thread->mutex);
        thread->unblock = unblock;
        thread->unblock_context = context;
        m_terminated = thread->terminated;
    }
}

THR_BLOCKING_SCOPE::~THR_BLOCKING_SCOPE() {
    if (THR_THREAD_STATE* const thread = current_thread) {
        const std::lock_guard<std::mutex> lock(thread->mutex);
        thread->unblock = nullptr;
        thread->unblock_context = nullptr;
    }
}
