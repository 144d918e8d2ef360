// The suite's message system: error lines, numbered posts, and internal errors.
//
// Everything that is reported in a process goes to one place: the standard error stream, one line
// a report, or the receiver that the host has installed:
//
//     error: TEXT                                    a line
//     error 20351: TEXT                              a post, its arguments filled in
//     internal error: TEXT [MODULE, SOURCE, line N]  an internal error; then the process aborts
//
// Every operation here may be called from any thread.

#ifndef ZEL_ZEL_MSG_ZEL_MSG_H
#define ZEL_ZEL_MSG_ZEL_MSG_H

#include <string>
#include <vector>

#include "zel/zel_msg/zel_msg_export.h"

#if defined(__GNUC__)
#define ZEL_MSG_PRINTF_LIKE(format_index, first_argument) \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define ZEL_MSG_PRINTF_LIKE(format_index, first_argument)
#endif

// Message types, as `MSG_RECEIVER::line` gets them.
enum MSG_TYPE : int {
    MSG_TYPE_ERROR = 3,
};

// Gets what would otherwise go to standard error. A host derives from it and installs an object of
// its class with `set`.
//
//     class MY_RECEIVER : public MSG_RECEIVER {
//         void line(int, const std::string& text) override { log(text); }
//         void post(unsigned long number, const std::string& text) override { log(number, text); }
//         void internal_error(const INTERNAL_ERROR& error) override {
//             throw std::runtime_error(error.text);
//         }
//     };
//     MY_RECEIVER receiver;
//     MSG_RECEIVER* const before = MSG_RECEIVER::set(&receiver);
//     ...
//     MSG_RECEIVER::set(before);
//
// The three functions are called on the thread that reports. They must not call back into the
// library that reports.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): nothing to copy or to move
class ZEL_MSG_API MSG_RECEIVER {
public:
    // One internal error.
    struct INTERNAL_ERROR {
        // The failed condition, or the explanation.
        std::string text;
        // Who reports, such as "PGM_PYTHON".
        std::string module;
        // The source file, without extension, as the product numbers its checks.
        std::string source;
        // The number of the check inside `source`, fixed for the life of the product.
        int line = 0;
    };

    virtual ~MSG_RECEIVER();

    // Gets a line of a type (`MSG_TYPE_ERROR`), without prefix and without a line end of its own.
    virtual void line(int type, const std::string& text) = 0;

    // Gets a posted error, its arguments filled in.
    virtual void post(unsigned long number, const std::string& text) = 0;

    // Gets an internal error. It may throw: the operation that reports then unwinds, leaves
    // nothing behind, and the exception reaches the operation's caller. When it returns, the
    // operation aborts the process, save for the few checks that go on after their report.
    virtual void internal_error(const INTERNAL_ERROR& error) = 0;

    // Installs `receiver` for the whole process and returns the one that was in force, null when
    // it was the default. A null `receiver` brings the default back. The receiver stays the
    // caller's and must live until another one is set.
    static MSG_RECEIVER* set(MSG_RECEIVER* receiver) noexcept;

    // Formats an internal error as the default writes it, without a line end.
    static std::string to_text(const INTERNAL_ERROR& error);
};

// Hands a line to the receiver, or writes it to standard error.
ZEL_MSG_API void msg_line(int type, const std::string& text);

// The ancestry of message objects. The bases hold nothing; they are here because code of the suite
// passes messages around by them.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): nothing to copy or to move
class ZEL_MSG_API PDB_OBJECT_BASE {
public:
    virtual ~PDB_OBJECT_BASE();
};
class ZEL_MSG_API PDB_VIRTUAL_OBJECT_BASE : public PDB_OBJECT_BASE {};
class ZEL_MSG_API PDB_VIRTUAL_OBJECT : public PDB_VIRTUAL_OBJECT_BASE {};

// A report that messages can be gathered in. Nothing here makes one: messages of a process without
// reports are constructed with a null one.
class MSG_REPORT;

// A message: a format with its arguments, and a number.
class ZEL_MSG_API MSG_BASE : public PDB_VIRTUAL_OBJECT {
public:
    // Takes the format and the arguments. `literal` is the format, a slash, and the message's
    // symbolic name (the last slash parts them; without one there is no name). In the format,
    // "%1!s!" stands for the first of `arguments`, "%2!s!" for the second, and so on. Arguments
    // go in as they are: nothing inside them is replaced. A placeholder without an argument stays
    // as it stands.
    void fill_args(const std::string& literal, const std::vector<std::string>& arguments);

    // Sets the message's number.
    void set_id(unsigned long id) { m_id = id; }

    // The message's number; 0 until it is set.
    unsigned long id() const { return m_id; }

    // The format with its arguments filled in.
    const std::string& text() const { return m_text; }

    // The symbolic name.
    const std::string& name() const { return m_name; }

private:
    std::string m_text;
    std::string m_name;
    unsigned long m_id = 0;
};

// A message that can be posted.
class ZEL_MSG_API MSG_POST : public MSG_BASE {
public:
    // Hands the message's number and text to the receiver, or writes them to standard error. The
    // message stays the caller's.
    void post() const;
};

// An error.
class ZEL_MSG_API MSG_E : public MSG_POST {
public:
    // `report` must be null (see MSG_REPORT); the suite's messages have it.
    explicit MSG_E(MSG_REPORT* report);
};

// Registers the numbers that a module posts, for the life of the object. A module keeps one at
// file scope.
class ZEL_MSG_API MSG_ID_REGISTRAR {
public:
    // Registers `count` numbers from `ids`, whose post types stand at the same places of `types`.
    // Both lists are copied.
    MSG_ID_REGISTRAR(const unsigned long* ids, const int* types, unsigned long count);
    ~MSG_ID_REGISTRAR();

    MSG_ID_REGISTRAR(const MSG_ID_REGISTRAR&) = delete;
    MSG_ID_REGISTRAR& operator=(const MSG_ID_REGISTRAR&) = delete;

    // The registered numbers of the process, in order of registration.
    static std::vector<unsigned long> registered();

    // The post type of a number, or -1 when it is not registered.
    static int type_of(unsigned long id);
};

// Reports of broken preconditions and impossible states.
//
// Without a receiver the report is written to standard error and the process aborts. With one, a
// report returns when the receiver returns, and throws what the receiver throws.
class ZEL_MSG_API MSG_INTERNAL_ERROR {
public:
    // Reports a condition that does not hold: `expression` is the condition's text.
    static void report(const char* expression, const char* module, const char* source, int line);

    // Reports with an explanation: `format` filled as printf fills it.
    static void report_varg(const char* module, const char* source, int line, const char* format,
                            ...) ZEL_MSG_PRINTF_LIKE(4, 5);
};

#endif
