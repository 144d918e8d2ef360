// Workers for calls: the one that waits, started ahead, or a new one.
//
// Starting one does not wait for its interpreter, and no thread of this process has part in it.
// What is here may be called on any thread. The one that waits ends with the process, and when the
// library is unloaded.

#ifndef PGM_PGM_PYTHON_WORKER_POOL_H
#define PGM_PGM_PYTHON_WORKER_POOL_H

#include <memory>
#include <string>

#include "pgm/pgm_python/worker_process.h"

// The program that serves calls where no other is named: the one that belongs to the library.
std::string own_worker_program();

struct TAKEN_WORKER {
    std::unique_ptr<WORKER_PROCESS> process;  // null: it cannot be started
    std::string reason;                       // why not
    bool was_waiting = false;
};

// Takes the worker that waits if it is one of `program`, lives, and was started in surroundings
// equal to these; else starts one. With `anew` it starts one in any case.
TAKEN_WORKER take_worker(const std::string& program, const std::string& surroundings, bool anew);

// Sees to it that one waits. Says nothing if none can be started: the call that wants it will.
void prepare_worker(const std::string& program, const std::string& surroundings);

#endif
