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

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
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

// What of a bridge never changes from call to call. A bridge starts from the common road and names
// where it leaves it:
//
//     constexpr BRIDGE generate_rim_bridge = BRIDGE(1534).with_early_back_channel();
struct BRIDGE {
    // `line` is the number that the road's internal errors carry.
    explicit constexpr BRIDGE(int road_line) : line(road_line) {}

    constexpr BRIDGE with_early_back_channel() const {
        BRIDGE bridge = *this;
        bridge.back_channel = BACK_CHANNEL_PLACEMENT::early;
        return bridge;
    }
    constexpr BRIDGE with_late_back_channel() const {
        BRIDGE bridge = *this;
        bridge.back_channel = BACK_CHANNEL_PLACEMENT::late;
        return bridge;
    }
    // The bridge itself posts 20351 when its call fails.
    constexpr BRIDGE posting_call_failure() const {
        BRIDGE bridge = *this;
        bridge.posts_call_failure = true;
        return bridge;
    }
    // The bridge prints this line, after the traceback, when its call fails.
    constexpr BRIDGE printing_call_failure(const char* text) const {
        BRIDGE bridge = *this;
        bridge.call_failure = text;
        return bridge;
    }
    // Another line for a function that is not found; the %s is optional.
    constexpr BRIDGE printing_lookup_failure(const char* text) const {
        BRIDGE bridge = *this;
        bridge.lookup_failure = text;
        return bridge;
    }
    // Another text of the check of the module's name.
    constexpr BRIDGE checking_module_name_as(const char* text) const {
        BRIDGE bridge = *this;
        bridge.module_name_check = text;
        return bridge;
    }
    // The bridge has checked script and function itself.
    constexpr BRIDGE without_script_check() const {
        BRIDGE bridge = *this;
        bridge.checks_script = false;
        return bridge;
    }
    constexpr BRIDGE without_argument_vector() const {
        BRIDGE bridge = *this;
        bridge.sets_argument_vector = false;
        return bridge;
    }
    // Of the search path, only the script's own folder is set.
    constexpr BRIDGE without_suite_folders() const {
        BRIDGE bridge = *this;
        bridge.sets_suite_folders = false;
        return bridge;
    }
    // The argument tuple is built before the function is looked up.
    constexpr BRIDGE building_arguments_first() const {
        BRIDGE bridge = *this;
        bridge.builds_arguments_first = true;
        return bridge;
    }
    // Each argument goes into the tuple before the next is made; else all are made first.
    constexpr BRIDGE placing_arguments_one_by_one() const {
        BRIDGE bridge = *this;
        bridge.places_one_by_one = true;
        return bridge;
    }
    // The result is released after a late completion; else as soon as it has been converted.
    constexpr BRIDGE keeping_result_until_completed() const {
        BRIDGE bridge = *this;
        bridge.keeps_result = true;
        return bridge;
    }

    int line;
    BACK_CHANNEL_PLACEMENT back_channel = BACK_CHANNEL_PLACEMENT::none;
    const char* module_name_check = "filename.size()";
    const char* lookup_failure = "Fail to find function %s";
    const char* call_failure = nullptr;
    bool posts_call_failure = false;
    bool checks_script = true;
    bool sets_argument_vector = true;
    bool sets_suite_folders = true;
    bool builds_arguments_first = false;
    bool places_one_by_one = false;
    bool keeps_result = false;
};

// An argument of a call. What it was made of by reference must outlive the call.
struct ARGUMENT {
    // What the reference is that `make` returns.
    enum class REFERENCE {
        owned,
        // Somebody else's. The tuple takes it as it is; what the tuple will drop is paid back just
        // before it does.
        borrowed,
        // Owned, of a bytearray that holds a secret: its bytes are overwritten before the tuple
        // drops it, however the call ends.
        owned_secret,
    };

    // Makes the object. Null is a failure; an object with a Python error pending fails the call.
    std::function<PyObject*(INTERPRETER_SESSION&)> make;
    REFERENCE reference = REFERENCE::owned;
};

// A str of the text up to its first zero byte.
ARGUMENT text_argument(const std::string& text);

// An int of the low 32 bits, read as a signed number.
ARGUMENT number_argument(unsigned long number);

// A str of the bytes as hexadecimal text. No second copy of the text is made on the way.
ARGUMENT hex_argument(const unsigned char* bytes, std::size_t size);

// A bytearray with a copy of the bytes; of zeros when `bytes` is null.
ARGUMENT bytes_argument(const unsigned char* bytes, std::size_t size);

// True or False.
ARGUMENT flag_argument(bool flag);

// A dict of str to str in the map's order. Its keys and values are kept alive until just before
// the interpreter is finalised. A text that is not UTF-8 fails the call.
ARGUMENT map_argument(const std::map<std::string, std::string>& map);

// What becomes of an answer. Gets the function's result, which stays the road's. False makes the
// call a failed one.
typedef std::function<bool(PyObject* result)> CONVERSION;

// Takes no notice of an answer.
bool ignore_result(PyObject* result);

// Converters of answers. A result of another kind gives the named value; nothing of Python's error
// state is left pending.

// The text of a str, up to its first zero byte; else empty.
std::string text_of_str(PyObject* result);

// The same where the type is exactly str; of anything else the bytes of a bytes object, up to the
// first zero byte; else empty.
std::string text_of_str_or_bytes(PyObject* result);

// The number of an int that a signed 32-bit number holds, as 0 to 0xFFFFFFFF; else 0xFFFFFFFF.
unsigned long number_of_int(PyObject* result);

// The bytes of a bytearray, which stay the object's; else null and 0.
struct BYTES {
    unsigned char* data;
    std::size_t size;  // cut to 32 bits
};
BYTES bytes_of_bytearray(PyObject* result);

// A new buffer with a copy of the bytes, even of none.
std::unique_ptr<unsigned char[]> copy_of(const BYTES& bytes);

// Overwrites the bytes of a bytearray with zeros.
void overwrite_bytearray(PyObject* object);

// The low 32 bits of a number: what counts of an unsigned long.
inline unsigned long low_32_bits(unsigned long number) {
    return number & 0xFFFFFFFFUL;
}

// The path of a script below the common programmer folder; `format` holds one %s for that folder.
std::string common_script(const char* format);

// One call of a bridge, used for one run.
class BRIDGE_CALL {
public:
    // `bridge` must outlive the object. `script` is the script's path, `function` the name of the
    // function to call.
    BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function);

    // The script's command line after its own path; empty unless set.
    void set_script_arguments(std::vector<std::string> arguments);

    // Announces an argument tuple, with the check that it was made. Without it the function is
    // called without one.
    void expect_tuple(const CHECK& made);

    // Adds the tuple's next item, with the checks that it was made (none for the singletons) and
    // that the tuple took it.
    void add_argument(ARGUMENT argument, const CHECK& made, const CHECK& placed);

    // Walks the road. Returns whether the call returned an object that `convert` accepted.
    // Everything that can go wrong has been reported on return.
    bool run(const CONVERSION& convert);

    // Whether the run came as far as calling the function.
    bool was_made() const { return m_made; }

private:
    class ARGUMENT_TUPLE;
    struct ROW {
        ARGUMENT argument;
        CHECK made;
        CHECK placed;
    };

    void check_script() const;
    bool run_session(const CONVERSION& convert, BACK_CHANNEL& back_channel);
    bool call_function(const CONVERSION& convert, INTERPRETER_SESSION& session,
                       BACK_CHANNEL& back_channel);
    void build_arguments(ARGUMENT_TUPLE& tuple, INTERPRETER_SESSION& session) const;
    void report_call_failure() const;

    const BRIDGE& m_bridge;
    std::string m_script;  // the module's name, once the search path is set up
    std::string m_function;
    std::vector<std::string> m_script_arguments;
    CHECK m_tuple_made;
    std::vector<ROW> m_rows;
    bool m_made = false;
};

// Ends a call that had a listener. Gives the listener of a failed call up to 500 ms to end by
// itself; then terminates it, or waits for its end. Posts, for a failed call, one failure message
// (20354 with `file` when `function` is empty, else 20351) and then each reason that the script
// sent (20353). `thread` is the address of the listener's handle, which is null afterwards.
void complete_python_call(bool success, THR_THREAD* thread, PGM_PYTHON_LISTENER_DATA* data,
                          std::string function, std::string file);

#endif
