// Threads of the suite.
//
// A handle belongs to whoever created the thread, until thr_thread_wait or
// thr_thread_terminate_and_possibly_crash takes it. The operations on one handle are called by one
// thread at a time; which one does not matter. A null handle stands for a thread that has ended.

#ifndef ZEL_ZEL_THR_ZEL_THR_H
#define ZEL_ZEL_THR_ZEL_THR_H

#include "zel/zel_thr/zel_thr_export.h"

struct THR_THREAD_STATE;

// A thread's handle.
typedef THR_THREAD_STATE* THR_THREAD;

// What a thread runs. The returned number is not kept. An exception that leaves the function ends
// the thread quietly.
typedef int (*THR_FUNCTION)(void* argument);

// Starts a thread that calls `function` with `argument` (which must outlive the thread's use of
// it). `options` must be 0. Returns the thread's handle, or null when the system gives no thread.
ZEL_THR_API THR_THREAD thr_thread_create(THR_FUNCTION function, void* argument, int options);

// Returns 1 while the thread's function runs and 0 once it has returned.
ZEL_THR_API int thr_thread_is_running(THR_THREAD thread);

// Waits until the thread has ended and releases it. What the thread wrote is visible afterwards.
ZEL_THR_API void thr_thread_wait(THR_THREAD thread);

// Ends the thread and releases it. A thread inside a THR_BLOCKING_SCOPE is asked to return from
// the blocking call and ends by its own code, so nothing of it stays behind. A thread that does not
// end in this way within a second is cancelled by the system's means; what it held is then lost,
// and with it perhaps the process, hence the name. What the thread wrote is visible afterwards.
ZEL_THR_API void thr_thread_terminate_and_possibly_crash(THR_THREAD thread);

// Lets the calling thread sleep for a number of milliseconds.
ZEL_THR_API void thr_msleep(unsigned long milliseconds);

// Makes a blocking call of the calling thread one that thr_thread_terminate_and_possibly_crash can
// end. The thread that terminates calls `unblock` with `context`, once every few milliseconds
// until the terminated thread has ended; `unblock` makes the blocking call return and must do no
// harm where the call has not begun yet or is over. When the object's destructor has returned,
// `unblock` is not running and will not be called again.
//
//     const THR_BLOCKING_SCOPE scope(shut_socket, &socket);
//     if (!scope.terminated()) {
//         accepted = accept(socket, nullptr, nullptr);
//     }
//
// On a thread that thr_thread_create did not make the scope does nothing.
class THR_BLOCKING_SCOPE {
public:
    ZEL_THR_API THR_BLOCKING_SCOPE(void (*unblock)(void* context), void* context);
    ZEL_THR_API ~THR_BLOCKING_SCOPE();

    THR_BLOCKING_SCOPE(const THR_BLOCKING_SCOPE&) = delete;
    THR_BLOCKING_SCOPE& operator=(const THR_BLOCKING_SCOPE&) = delete;

    // Whether the thread was already being terminated when the scope began; it must then not
    // block any more.
    bool terminated() const { return m_terminated; }

private:
    bool m_terminated = false;
};

#endif
