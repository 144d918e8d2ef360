// Order in an interpreter that goes on after a session: what a session finds there is noted, and
// put back at its end, so that the next one finds it too. The work is done in Python
// (session_order.py); docs/sessions.md says what is put back, what stays, and why.
//
// All of it needs the interpreter's lock, and belongs to the thread of the session.

#ifndef PGM_PGM_PYTHON_SESSION_ORDER_H
#define PGM_PGM_PYTHON_SESSION_ORDER_H

#include <string>
#include <vector>

#include "zel/zel_py/py_reference.h"

class SESSION_ORDER {
public:
    enum class INTERPRETER {
        // The library's, which is kept from session to session. One object serves for all of them;
        // it is made right after the interpreter's start.
        kept,
        // The host's own. One object a session.
        hosts,
    };

    // Notes what is there now. A failure is an internal error.
    explicit SESSION_ORDER(INTERPRETER interpreter);
    ~SESSION_ORDER() = default;

    SESSION_ORDER(const SESSION_ORDER&) = delete;
    SESSION_ORDER& operator=(const SESSION_ORDER&) = delete;

    // Begins a session: lets it see the environment as it is now, and gives it a main module, a
    // context of variables and, in a kept interpreter, standard streams of its own. A failure is an
    // internal error.
    void begin();

    // To be called when the folders of the suite or of the script have been put on sys.path:
    // modules of the same names that earlier sessions have loaded from elsewhere give way.
    void search_path_is_set();

    // Ends a session: waits for its threads, runs what it registered with atexit, puts everything
    // back and collects what it made. Returns what failed, one text a step; never throws.
    std::vector<std::string> end() noexcept;

private:
    // Calls a method of the object in Python; null with an exception pending when it fails.
    PY_REFERENCE call(const char* method, PyObject* argument = nullptr) const;

    // Makes m_environment what the process's environment is; false with an exception pending when
    // that fails.
    bool look_at_environment();

    PY_REFERENCE m_order;
    PY_REFERENCE m_context;
    std::vector<std::string> m_entries;  // the environment when it was looked at last,
    PY_REFERENCE m_environment;          // as a list of bytes
};

#endif
