// What the tests have in common: an installation of their own, a receiver that records, and looks
// at the process from outside.

#ifndef TESTS_SUPPORT_H
#define TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "zel/zel_msg/zel_msg.h"

// What a RECORDING_RECEIVER throws out of an internal error.
struct INTERNAL_ERROR_THROWN {
    MSG_RECEIVER::INTERNAL_ERROR error;
};

// Records what is reported while it lives, as "error: TEXT", "error NUMBER: TEXT" and
// "internal error: TEXT [..., line N]"; throws INTERNAL_ERROR_THROWN out of internal errors unless
// `returns_from_internal_errors` is set.
class RECORDING_RECEIVER : public MSG_RECEIVER {
public:
    RECORDING_RECEIVER();
    ~RECORDING_RECEIVER() override;

    void line(int type, const std::string& text) override;
    void post(unsigned long number, const std::string& text) override;
    void internal_error(const INTERNAL_ERROR& error) override;

    // What was reported so far, in order.
    std::vector<std::string> reports;
    bool returns_from_internal_errors = false;

private:
    MSG_RECEIVER* m_before;
};

// "internal error: TEXT [PGM_PYTHON, pgm/pgm_python/pgm_python_mgr, line N]"
std::string internal_error(const std::string& text, int line);

// Runs `action`, which must report an internal error through the receiver in force and throw it,
// and returns the error in the form above; "nothing was thrown" otherwise.
std::string thrown_by(const std::function<void()>& action);

// A folder of its own, removed with all it holds at the end.
class TEMPORARY_FOLDER {
public:
    explicit TEMPORARY_FOLDER(const std::string& name = "pgm_python_test");
    ~TEMPORARY_FOLDER();
    TEMPORARY_FOLDER(const TEMPORARY_FOLDER&) = delete;
    TEMPORARY_FOLDER& operator=(const TEMPORARY_FOLDER&) = delete;

    // The folder's path, with forward slashes.
    std::string path() const;

    // Writes a file below the folder, making the folders on the way; returns its whole path.
    std::string write(const std::string& name, const std::string& content) const;

    // Makes a folder below this one; returns its whole path.
    std::string make_folder(const std::string& name) const;

    std::string read(const std::string& name) const;

private:
    std::filesystem::path m_path;
};

// An environment variable with another value until the end of the scope; null unsets it.
class ENVIRONMENT_VALUE {
public:
    ENVIRONMENT_VALUE(const std::string& name, const char* value);
    ~ENVIRONMENT_VALUE();
    ENVIRONMENT_VALUE(const ENVIRONMENT_VALUE&) = delete;
    ENVIRONMENT_VALUE& operator=(const ENVIRONMENT_VALUE&) = delete;

private:
    std::string m_name;
    std::string m_before;
    bool m_was_set;
};

// Another current folder until the end of the scope.
class CURRENT_FOLDER {
public:
    explicit CURRENT_FOLDER(const std::string& folder);
    ~CURRENT_FOLDER();
    CURRENT_FOLDER(const CURRENT_FOLDER&) = delete;
    CURRENT_FOLDER& operator=(const CURRENT_FOLDER&) = delete;

private:
    std::filesystem::path m_before;
};

// What `action` writes to standard error, by whatever way.
std::string written_by(const std::function<void()>& action);

// An installation with scripts of the test's own, in force while it lives.
class TEST_INSTALLATION {
public:
    // The folders are made below a temporary folder whose last component is `name`.
    explicit TEST_INSTALLATION(const std::string& name = "installation");

    std::string common() const { return m_folder.path() + "/common/programmer"; }
    std::string unshipped() const { return m_folder.path() + "/unshipped/programmer"; }
    std::string bin() const { return m_folder.path() + "/bin"; }
    const TEMPORARY_FOLDER& folder() const { return m_folder; }

    // Writes a script below the common programmer folder ("python/x.py"). A name that ends in
    // ".pyc" gets the compiled form of `source`. Returns the whole path.
    std::string common_script(const std::string& name, const std::string& source) const;

    // The same below the unshipped programmer folder.
    std::string unshipped_script(const std::string& name, const std::string& source) const;

private:
    TEMPORARY_FOLDER m_folder;
    ENVIRONMENT_VALUE m_common;
    ENVIRONMENT_VALUE m_unshipped;
    ENVIRONMENT_VALUE m_bin;
};

// Writes the compiled form of a script with the linked interpreter.
void write_compiled(const std::string& file, const std::string& source);

// Source that sends `text` (a Python bytes expression) over the back channel in one send, in the
// form of a function send(text).
extern const char send_function[];

// Whether the linked Python can import a module in a second session of a process. CPython 3.12 up
// to 3.12.1 crashes with some extension modules, the embedding program being as small as can be
// (bare_sessions.cpp, which is asked there); other versions must do it.
bool python_imports_again(const std::string& module);
extern const char why_python_does_not_import_again[];

// The kind of calls that PGM_PYTHON_CALLS names for the tests; "fresh" when it is not set.
std::string kind_of_calls();

// Skips the test in which it stands where it holds for fresh sessions only. docs/sessions.md lists
// these.
#define SKIP_UNLESS_FRESH(reason)                                 \
    if (kind_of_calls() != "fresh") {                             \
        GTEST_SKIP() << "holds for fresh sessions only: " reason; \
    }

// Whether calls run in this process: not when PGM_PYTHON_CALLS sends them to workers.
bool calls_are_in_process();

// Leaves a test that looks at what is in this process only when calls are.
#define SKIP_UNLESS_IN_PROCESS(reason)                              \
    do {                                                            \
        if (!calls_are_in_process()) {                              \
            GTEST_SKIP() << "calls run in workers, and " << reason; \
        }                                                           \
    } while (false)

// Whether an interpreter is initialised in the process; where the tests' calls run in a kept one,
// whether the calling thread is using it.
bool interpreter_is_running();

// How many items stand in the tuple of `size` items that is being filled; -1 where there is not
// exactly one. For these two an interpreter must run; a pending exception stays pending.
int items_in_unfinished_tuple(int size);

// How many tuples hold the item, a text or a number.
int count_of_tuples_with(const std::string& item);

// Counts, at an internal error, the items in the tuple of so many that is being filled.
struct UNFINISHED_TUPLE : RECORDING_RECEIVER {
    explicit UNFINISHED_TUPLE(int tuple_size) : size(tuple_size) {}
    void internal_error(const INTERNAL_ERROR& error) override {
        items = items_in_unfinished_tuple(size);
        RECORDING_RECEIVER::internal_error(error);
    }
    int size;
    int items = -1;
};

// Counts of the process; negative where the platform does not tell.
int count_of_threads();

// Has the platform make what it makes with a process's first worker, and keeps: threads, under
// Wine.
void warm_up_workers();
int count_of_open_handles();
int count_of_sockets();
int count_of_listeners_on_every_interface();

// Whether a process can make a copy of itself with os.fork.
bool platform_can_fork();

// How many handles bare sessions leave open in which `code` runs: Python for Windows never closes
// a token in each, and a lock for each module of sockets.
int handles_left_by_sessions(int sessions, const char* code);

// The memory of the process that is in use now, in bytes; negative where the platform does not
// tell.
long long resident_memory();

// How far the memory in use has risen at its peak since construction. Where the platform cannot
// begin a peak anew, only the first of a process tells.
class PEAK_MEMORY {
public:
    PEAK_MEMORY();

    // In bytes; negative where the platform does not tell.
    long long growth() const;

private:
    long long m_before;
};

// The threads that the process had when the object was made.
class THREADS_BEFORE {
public:
    THREADS_BEFORE();

    // Whether there are no more than those now. One that has been waited for may be seen a
    // little longer from outside, so this waits for up to two seconds.
    bool are_back() const;

private:
    int m_count;
};

// Whether another program could listen on the back channel's port now.
bool port_is_free();

// Holds the back channel's port as another program would, until the end of the scope.
class PORT_HOLDER {
public:
    PORT_HOLDER();
    ~PORT_HOLDER();
    PORT_HOLDER(const PORT_HOLDER&) = delete;
    PORT_HOLDER& operator=(const PORT_HOLDER&) = delete;

    bool holds() const { return m_holds; }

private:
    std::size_t m_socket;
    bool m_holds = false;
};

// How many connections may wait at the process's listening socket, and how many the system allows
// at most; negative where the platform does not tell.
struct BACKLOG {
    long long listening;
    long long most;
};
BACKLOG backlog();

// The port and the word of an announced channel.
unsigned int port_of(const std::string& announced);
std::string word_of(const std::string& announced);

// A client of the back channel. It waits for no more than ten seconds to send or to receive.
class CLIENT {
public:
    // Tries to connect for up to two seconds, to one of this machine's own addresses.
    explicit CLIENT(std::uint32_t address = 0x7F000001);
    // Tries once to connect to an announced channel, "127.0.0.1:PORT:WORD", without saying the
    // word.
    explicit CLIENT(const std::string& announced);
    ~CLIENT();
    CLIENT(const CLIENT&) = delete;
    CLIENT& operator=(const CLIENT&) = delete;

    bool connected() const { return m_connected; }
    void send(const std::string& text) const;

    // The same where the other side may have closed: whether all was sent.
    bool tries_to_send(const std::string& text) const;

    void shut_down_sending() const;

    // Waits until the other side has closed; true when it did so without sending anything.
    bool sees_silent_end() const;

    // The same where the other side may have gone without accepting, which resets the connection.
    bool sees_end_or_reset() const;

    // Waits until the other side has broken off; true when it did so without sending anything.
    // Wine ends a connection before it breaks it off, so there an end counts, too.
    bool sees_break_off() const;

private:
    std::size_t m_socket;
    bool m_connected = false;
};

// Runs a program and gives its exit status and what it wrote. `environment` holds NAME=VALUE.
// In `output` and `errors` lines end as the language has it; `output_bytes` is the output as it is.
struct PROGRAM_RESULT {
    int status;
    std::string output;
    std::string errors;
    std::string output_bytes;
};
PROGRAM_RESULT run_program(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment = {});

// NAME=VALUE that lets a program's Python write UTF-8.
std::string utf8_output_setting();

// Whether a program takes its locale from the environment.
bool environment_tells_locale();

// Checks that an operation has left nothing behind: the interpreter is finalised (or
// given back, where it is kept), no thread is left
// of more than there were, the port is free.
class NOTHING_LEFT_BEHIND {
public:
    NOTHING_LEFT_BEHIND();
    void check() const;

private:
    THREADS_BEFORE m_threads;
};

#endif
