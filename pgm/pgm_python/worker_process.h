// Worker processes, as their host sees them and from within; one file a platform implements it.
//
// A worker process serves one call. It has nothing of the host's open but the standard streams and
// its own end of the connection, and the streams only as far as Python wants to see them at its
// start: those of the call come with the call. It is no child that the host could wait for by
// accident, and it ends when the host does, whatever ends the host. What is started in it does not
// get the connection.

#ifndef PGM_PGM_PYTHON_WORKER_PROCESS_H
#define PGM_PGM_PYTHON_WORKER_PROCESS_H

#include <memory>
#include <mutex>
#include <string>

#include "pgm/pgm_python/worker_frames.h"

// What a process started now would find: environment, current folder, mask of new files'
// permissions, locale, and where streams come with the call, of what kinds they are. Two equal
// texts stand for the same.
std::string surroundings_of_process();

// The folder of the library (or program) that this code is in; empty when the system does not tell.
std::string folder_of_library();

// The name of the program that serves calls.
extern const char worker_program_name[];

// Whether a file is there that could be a program.
bool is_program(const std::string& file);

// Guards what this process keeps of its workers. Held while the process forks, so that the child
// finds it free and what it guards whole. Not to be held when a worker is made or destroyed.
std::mutex& workers_mutex();

// A started worker process. One thread uses it at a time.
class WORKER_PROCESS : public FRAME_STREAM {
public:
    // Starts a program as a worker. Null when it cannot be started; `reason` then tells why.
    // Whether it is a worker shows in `greets`.
    static std::unique_ptr<WORKER_PROCESS> start(const std::string& program, std::string& reason);

    // Whether it still waits for its call, and has the standard streams for one that is made now
    // where they do not come with the call. Does not block.
    virtual bool is_waiting() = 0;

    // Waits until it has shown that it is a worker; false when it does not.
    virtual bool greets() = 0;

    // Gives it the standard streams of this process, where they are not those of its start, and the
    // current folder, where it is elsewhere; false as FRAME_STREAM::write.
    virtual bool send_streams() = 0;

    // Reads and writes fail when so many seconds have gone by from now; 0 for no limit.
    virtual void set_time_limit(double seconds) = 0;
    virtual bool time_is_up() const = 0;

    // Lets it end by itself, and whatever its script has started go on: it has answered.
    virtual void let_go() = 0;

    // Ends it, where it still runs, and everything that its script has started, and tells how it
    // ended: "exit status 0", "signal 11, Segmentation fault"; or, where it could not take what it
    // was given, why not. The destructor ends it, too, unless
    // it was let go, without waiting for its end.
    virtual std::string end() = 0;
};

// The worker's end of the connection, in the worker. Used by the thread that called `serve_worker`.
class HOST_CONNECTION : public FRAME_STREAM {
public:
    // Lets go of the standard streams until then.
    virtual void release_streams() = 0;

    // Takes what send_streams gives, which comes before a request; false when the host is gone, or
    // has been told why not.
    virtual bool receive_streams() = 0;

    // Lets go of the current folder where that would keep the host from renaming or deleting it,
    // until receive_streams or for good.
    virtual void leave_folder() = 0;

    // Whether this is the process that got the connection, not one that a script forked.
    virtual bool is_own() const = 0;
};

// The main program of a worker: becomes one and calls `serve` with the connection to the host; what
// that returns is the status of the process. Returns only where the command line is not a host's.
int serve_worker(int argc, char** argv, void (*serve)(HOST_CONNECTION& host));

// Ends the process at once, its C streams flushed.
[[noreturn]] void end_worker();

#endif
