// The suite's embedded Python interpreter.
//
// The interpreter is process-wide: one session at a time, and all operations of a session on the
// thread that called py_initialize. Texts are UTF-8.

#ifndef ZEL_ZEL_PY_ZEL_PY_H
#define ZEL_ZEL_PY_ZEL_PY_H

#include "zel/zel_py/zel_py_export.h"

// Starts the interpreter. No signal handlers are installed; SIGPIPE is ignored until py_finalize,
// so that a script that writes to a closed connection cannot end the process. Where the host runs
// an interpreter of its own, the session uses that one and takes its lock.
//
// An interpreter that cannot start is an internal error. Where Python finds that out itself (a
// damaged standard library, say), it cannot be started again in the process, and Python 3.7 ends
// the process. Outside Windows a PYTHONHOME that leads to no standard library is found out before:
// the next session may start.
ZEL_PY_API void py_initialize();

// Ends a session: shuts down the interpreter that py_initialize started and puts back what the
// session changed in the process: the handling of signals and the locale. A host's own interpreter
// is left running. May be called on another thread than the start when the session was resumed
// there.
ZEL_PY_API void py_finalize();

// Whether the session in force runs in an interpreter that py_initialize started; false in a host's
// own, and when no session is in force.
ZEL_PY_API bool py_owns_interpreter();

// Ends a session as py_finalize does, but keeps the interpreter, which py_initialize must have
// started: gives back its lock, so that any thread may resume it.
ZEL_PY_API void py_suspend();

// Begins a session in the interpreter that py_suspend has kept, on the calling thread. False when
// there is none; no session is in force then.
ZEL_PY_API bool py_resume();

// Runs a statement, or several parted by line ends, in the main module. The text is UTF-8, whatever
// a coding cookie in it says. Returns true when they ran
// to their end. An exception is printed as Python prints it, and gives false. sys.exit ends the
// statement, not the process: true for no status or status 0, else false, a text being printed.
ZEL_PY_API bool py_eval(const char* statement);

// Runs the file argv[0] as the main program with sys.argv made of the `argc` entries of argv:
// compiled code when the name ends with ".pyc", else source. Returns true when it ran to its end;
// exceptions and sys.exit as with py_eval. The entries stay the caller's.
ZEL_PY_API bool py_source_with_args(int argc, const char** argv);

// Prints the pending Python exception through sys.excepthook, sets sys.last_value and its like, and
// clears it, as PyErr_Print does. But it never ends the process: a SystemExit is printed like any
// other exception, without the hook, and a hook that exits has failed like any other hook.
// Something must be pending.
ZEL_PY_API void py_print_error();

#endif
