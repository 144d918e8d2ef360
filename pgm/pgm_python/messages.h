// What the library reports: internal errors, and the numbered messages of failed script calls.
// Every operation here may be called from any thread.

#ifndef PGM_PGM_PYTHON_MESSAGES_H
#define PGM_PGM_PYTHON_MESSAGES_H

#include <memory>
#include <string>

#include "zel/zel_msg/zel_msg.h"

// A failed condition as an internal error tells it: the condition's text, and the fixed number of
// the check. A null text stands for "nothing is checked here".
struct CHECK {
    const char* text = nullptr;
    int line = 0;
};

// Reports an internal error and does not come back: it throws what the receiver throws, else the
// process ends.
[[noreturn]] void fail(const CHECK& check);

// The same with an explanation: `format` holds one %s, filled with `argument`.
[[noreturn]] void fail(int line, const char* format, const std::string& argument);

// fail(check) unless the condition holds.
inline void require(bool condition, const CHECK& check) {
    if (!condition) {
        fail(check);
    }
}

// Has a function called, in place of nothing, when the report of an internal error that `fail` made
// has returned and the process is about to end. Null takes it back. For a process that reports to
// another one.
void tell_of_fatal_reports(void (*returned)());

// Reports an internal error whose check is written to go on when the report returns.
void report_and_go_on(const CHECK& check);
void report_and_go_on(int line, const char* format, int argument);

// New messages. The caller owns what they return.

// 20351: a function of a script failed.
MSG_E* make_execution_failure_msg(const std::string& function, const std::string& file);

// 20354: a script run as main program failed.
MSG_E* make_execution_failure_file_msg(const std::string& file);

// 20353: one of the reasons that a script gave.
MSG_E* make_execution_failure_reason_msg(const std::string& reason);

// Posts a message and releases it.
void post_and_release(MSG_E* message);

#endif
