// The interpreter session: the interpreter's life, its argument vector and its search path.
//
// A session is a scope. What uses the interpreter lives inside it; the wide argument vector is
// declared before it, because the interpreter may look at the vector until it is finalised:
//
//     WIDE_ARGUMENT_VECTOR arguments;              // released last
//     INTERPRETER_SESSION session;                 // py_initialize ... py_finalize
//     arguments.set(script, script_arguments);
//     session.setup_system_path();
//     const std::string module = session.setup_system_path(script);
//     {
//         const PY_REFERENCE name = ...;           // gone before the session ends
//     }
//
// Sessions never overlap in a process, and belong to the thread that made them. In which
// interpreter they run, the setting of the kind of calls says (pgm_python_settings.h); in a process
// whose host runs an interpreter of its own, it is that one.

#ifndef PGM_PGM_PYTHON_INTERPRETER_SESSION_H
#define PGM_PGM_PYTHON_INTERPRETER_SESSION_H

#include <memory>
#include <string>
#include <vector>

#include "pgm/pgm_python/session_order.h"
#include "pgm/pgm_python/settings.h"
#include "zel/zel_py/py_reference.h"

// The interpreter's argument vector (sys.argv).
class WIDE_ARGUMENT_VECTOR {
public:
    WIDE_ARGUMENT_VECTOR() = default;
    ~WIDE_ARGUMENT_VECTOR();

    WIDE_ARGUMENT_VECTOR(const WIDE_ARGUMENT_VECTOR&) = delete;
    WIDE_ARGUMENT_VECTOR& operator=(const WIDE_ARGUMENT_VECTOR&) = delete;

    // Converts the script's path and its arguments and hands them to the running interpreter. To
    // be called once.
    void set(const std::string& script, const std::vector<std::string>& script_arguments);

private:
    int m_count = 0;
    wchar_t** m_arguments = nullptr;
};

// The right to use the interpreter, which one session at a time has.
class SESSION_CLAIM {
public:
    // An internal error while there is another in the process, on whatever thread. Python is not
    // touched by it, and the other goes on.
    SESSION_CLAIM();
    ~SESSION_CLAIM();

    SESSION_CLAIM(const SESSION_CLAIM&) = delete;
    SESSION_CLAIM& operator=(const SESSION_CLAIM&) = delete;
};

// The interpreter, from construction to destruction.
class INTERPRETER_SESSION {
public:
    // Internal errors: a session that is in force already; a kind of calls that there is not; an
    // interpreter that cannot be started.
    explicit INTERPRETER_SESSION(PGM_PYTHON_CALLS calls = settings_in_force().calls);
    ~INTERPRETER_SESSION();

    INTERPRETER_SESSION(const INTERPRETER_SESSION&) = delete;
    INTERPRETER_SESSION& operator=(const INTERPRETER_SESSION&) = delete;

    // Starts the interpreter for the next session, which finds it running and ends it.
    static void start_ahead();

    // See the operations of these names in PGM_PYTHON_MGR.
    void setup_system_path();
    std::string setup_system_path(const std::string& script);

    // Names the channel for reasons in os.environ, and so in the environment of programs that the
    // script starts, until the interpreter is finalised or put in order, after the functions that
    // the script had registered for its end; what was there before is put back then. An empty text
    // does nothing, and a failure leaves the script without the entry. To be called once.
    void announce_reasons_channel(const std::string& text);

    // Keeps an object alive until just before the interpreter is finalised or put in order.
    void keep(PY_REFERENCE object) { m_kept.push_back(std::move(object)); }

private:
    const SESSION_CLAIM m_claim;
    // The order of the interpreter, where it goes on after the session.
    SESSION_ORDER* m_order = nullptr;
    std::unique_ptr<SESSION_ORDER> m_own_order;
    std::vector<PY_REFERENCE> m_kept;
};

// Allocates `count` slots, fills them with `first` (unless empty) and `args`, and returns them. A
// number of texts other than `count` is an internal error after which, when the report returns, the
// array is returned as it is: slots beyond the texts are null, texts beyond the slots are left out.
wchar_t** fill_wide_vector(const std::string& first, const std::vector<std::string>& args,
                           int count);

#endif
