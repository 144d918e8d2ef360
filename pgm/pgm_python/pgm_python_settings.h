// What a host may choose beyond the contract of the operations.
//
// Each setting is also an environment variable, which whoever runs the program sets; a host's
// choice goes before it. Both are read at every call, and a call keeps to the end what it found at
// its beginning. An environment variable that is set to nothing counts as unset, and one with a
// value other than those listed makes every operation an internal error that names the values.
//
//     PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
//     PGM_PYTHON_SETTINGS::set_call_timeout(30.0);
//
// Every operation here may be called on any thread at any time, except where its comment says more.

#ifndef PGM_PGM_PYTHON_PGM_PYTHON_SETTINGS_H
#define PGM_PGM_PYTHON_PGM_PYTHON_SETTINGS_H

#include <string>

#include "pgm/pgm_python/pgm_python_export.h"

// In what a call's script runs.
enum class PGM_PYTHON_CALLS {
    // An interpreter of the call's own, in the process of the host.
    fresh,
    // One interpreter for all calls of the process, put in order between them.
    kept,
    // A process of the call's own, started ahead.
    worker,
};

// On which channels a script can tell its reasons.
enum class PGM_PYTHON_REASONS {
    // TCP port 57343 on every interface, and the channel that PGM_PYTHON_REASONS_CHANNEL announces
    // to the script.
    both,
    // The announced channel only, which listens on 127.0.0.1.
    announced,
};

// What the host chooses for the operations of its process.
class PGM_PYTHON_SETTINGS {
public:
    // PGM_PYTHON_CALLS: "fresh" (the default), "kept" or "worker".
    PGM_PYTHON_API static void set_calls(PGM_PYTHON_CALLS kind);

    // Ends the interpreter that calls of the kind `kept` have left in the process, as Python ends:
    // the next such call starts another. Does nothing when there is none. A call of the kind
    // `fresh` does the same before its own interpreter starts. To be called before the library is
    // unloaded, and before a process that goes on without calling scripts hands its memory to
    // something else; a process that ends need not call it, since each call has ended what it
    // began. May be called on any thread. A call that is under way is an internal error.
    PGM_PYTHON_API static void end_kept_interpreter();

    // PGM_PYTHON_CALL_TIMEOUT: the seconds after which a call in a worker is ended; 0, the default,
    // for no limit. Other kinds of calls have none. A number that is negative or not finite is
    // taken as 0 here.
    PGM_PYTHON_API static void set_call_timeout(double seconds);

    // PGM_PYTHON_WORKER: the path of the program pgm_python_worker. Empty: the one that belongs to
    // the library, found by the library's own place.
    PGM_PYTHON_API static void set_worker(const std::string& program);

    // PGM_PYTHON_REASONS: "both" (the default) or "announced".
    PGM_PYTHON_API static void set_reasons(PGM_PYTHON_REASONS channels);

    // PGM_PYTHON_TRACEBACK: "1" prints the traceback of a function that raised where only its
    // failure would be reported; "0" is the default.
    PGM_PYTHON_API static void set_traceback(bool printed);

    // Forgets what the functions above chose: the environment decides again.
    PGM_PYTHON_API static void use_environment();
};

#endif
