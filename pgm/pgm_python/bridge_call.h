// The road that every bridge operation follows, written once.
//
// A bridge states what is its own: a BRIDGE (its facts), the rows of its argument tuple, and what
// becomes of the answer. The road does the rest, in this order:
//
//     early listener . script and function checks . interpreter . argument vector . search path .
//     module name . import . function . late listener . argument tuple . call . answer .
//     [late: completion] . release of tuple, function, module, name . interpreter finalised .
//     argument vector released . [early: completion]
//
// What ends a scope is done by leaving the scope: a throwing report anywhere on the road finds
// everything before it undone in reverse.

#ifndef PGM_PGM_PYTHON_BRIDGE_CALL_H
#define PGM_PGM_PYTHON_BRIDGE_CALL_H

#include <functional>
#include <string>
#include <vector>

#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/messages.h"
#include "zel/zel_py/py_reference.h"

// Where a bridge's back channel begins and ends.
enum class BACK_CHANNEL_PLACEMENT {
    // The bridge has none.
    none,
    // From before the checks of script and function until after the interpreter is finalised; a
    // failure on the way to the call completes it too.
    early,
    // From when the function has been found until the answer has been converted; the interpreter
    // still runs then.
    late,
};

// What of a bridge never changes from call to call.
struct BRIDGE {
    // The number that the road's internal errors carry.
    int line;
    BACK_CHANNEL_PLACEMENT back_channel = BACK_CHANNEL_PLACEMENT::none;

    // Whether the bridge itself posts 20351 when its call fails.
    bool posts_call_failure = false;
};

// One row of an argument tuple.
struct ARGUMENT {
    // Makes the object: a new reference, or null.
    std::function<PyObject*()> make;
    // Checks that the object was made, and that the tuple took it.
    CHECK made;
    CHECK placed;
};

// Makers of arguments. What they are given by reference must outlive the call.

// A str of the text up to its first zero byte.
std::function<PyObject*()> text_argument(const std::string& text);

// An int of the low 32 bits, read as a signed number.
std::function<PyObject*()> number_argument(unsigned long number);

// What becomes of an answer. Gets the function's result, which stays the road's.
typedef std::function<void(PyObject* result)> CONVERSION;

// Converters of answers. A result of another kind gives the named value; nothing of Python's error
// state is left pending.

// The text of a str, up to its first zero byte; else empty.
std::string text_of_str(PyObject* result);

// The same where the type is exactly str; of anything else the bytes of a bytes object, up to the
// first zero byte; else empty.
std::string text_of_str_or_bytes(PyObject* result);

// The number of an int that a signed 32-bit number holds, as 0 to 0xFFFFFFFF; else 0xFFFFFFFF.
unsigned long number_of_int(PyObject* result);

// The path of a script in the "python" folder of the common programmer folder; `format` holds one
// %s for that folder.
std::string common_script(const char* format);

// One call of a bridge, used for one run.
class BRIDGE_CALL {
public:
    // `bridge` must outlive the object. `script` is the script's path, `function` the name of the
    // function to call.
    BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function);

    // The script's command line after its own path; empty unless set.
    void set_script_arguments(std::vector<std::string> arguments);

    // The argument tuple: the check that it was made, and its rows.
    void set_arguments(const CHECK& tuple_made, std::vector<ARGUMENT> arguments);

    // Walks the road. Returns whether the call returned an object; `convert` has then seen it.
    // Everything that can go wrong has been reported on return.
    bool run(const CONVERSION& convert);

private:
    void check_script() const;
    bool run_session(BACK_CHANNEL& back_channel);
    bool call_function(BACK_CHANNEL& back_channel);
    PY_REFERENCE make_arguments() const;

    const BRIDGE& m_bridge;
    std::string m_script;  // the module's name, once the search path is set up
    std::string m_function;
    std::vector<std::string> m_script_arguments;
    CHECK m_tuple_made = {nullptr, 0};
    std::vector<ARGUMENT> m_arguments;
    CONVERSION m_convert;
};

// Ends a call that had a listener. Gives the listener of a failed call up to 500 ms to end by
// itself; then terminates it, or waits for its end. Posts, for a failed call, one failure message
// (20354 with `file` when `function` is empty, else 20351) and then each reason that the script
// sent (20353). `thread` is the address of the listener's handle, which is null afterwards.
void complete_python_call(bool success, THR_THREAD* thread, PGM_PYTHON_LISTENER_DATA* data,
                          std::string function, std::string file);

#endif
