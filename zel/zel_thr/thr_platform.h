// What differs between platforms in threads; one file a platform implements it.

#ifndef ZEL_ZEL_THR_THR_PLATFORM_H
#define ZEL_ZEL_THR_THR_PLATFORM_H

struct THR_THREAD_STATE;

namespace thr_platform {

// The system's thread; allocated by start, released by join or abandon.
struct SYSTEM_THREAD;

// Starts a thread that calls thr_thread_main(state); null when the system gives no thread.
SYSTEM_THREAD* start(THR_THREAD_STATE* state);

// Waits for the thread's end.
void join(SYSTEM_THREAD* thread);

// Asks the system to end the thread wherever it is. It may go on for a while.
void kill(SYSTEM_THREAD* thread);

// Lets go of a thread that does not end.
void abandon(SYSTEM_THREAD* thread);

}  // namespace thr_platform

// Runs the thread's function and tells that it has ended; also when the system unwinds the thread.
void thr_thread_main(THR_THREAD_STATE* state);

#endif
