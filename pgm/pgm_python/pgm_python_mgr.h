// Calls of Python scripts from the suite's native programs.

#ifndef PGM_PGM_PYTHON_PGM_PYTHON_MGR_H
#define PGM_PGM_PYTHON_PGM_PYTHON_MGR_H

#include <string>
#include <vector>

#include "pgm/pgm_python/pgm_python_export.h"

// One static operation a job. Each checks its arguments, runs one function of one script of the
// installation in an interpreter of its own, and gives back what the function answered:
//
//     const std::string name = PGM_PYTHON_MGR::query_opn_enum(0x1001);
//     if (name.empty()) {
//         // the reasons have been reported; there is nothing to release
//     }
//
// Threads: an operation does all its work on the calling thread and may be called on any, but
// operations must not overlap, in this process or (those with a back channel) with another
// process's: the interpreter is process-wide and the back channel is one fixed port.
//
// Texts are UTF-8 and reach scripts up to their first zero byte. Numbers are 32-bit: of an
// unsigned long the low 32 bits count, scripts get them as signed numbers, and numbers that come
// back are 0 to 0xFFFFFFFF.
//
// Failures come in three kinds:
//   - a broken precondition, such as an empty argument where one must be given or a script that is
//     not installed, is an internal error: it is reported and the process aborts, unless the
//     receiver that the host has installed (MSG_RECEIVER, zel/zel_msg/zel_msg.h) throws. The
//     operation then leaves nothing behind and the exception reaches the caller;
//   - a script that cannot be loaded or has no such function is reported with its traceback and
//     one error line;
//   - a script that fails is reported as error 20351 or 20354, followed by the reasons that the
//     script gave, each as error 20353.
// After the last two the operation returns the failure value that its comment names.
class PGM_PYTHON_MGR {
public:
    // Runs Python from a command line. `argv` holds `argc` arguments; the first is the mode or the
    // script, not a program name:
    //   - "-c", followed by Python code as one text: runs the code; what follows it is ignored;
    //   - the name of a default script without extension, or a path that ends in ".py" or ".pyc":
    //     runs the script as main program with the further arguments.
    // Returns true when the code or script ran to its end or left with exit status 0; false when it
    // failed or the arguments are unusable, with a report in each case but a sys.exit in "-c" code.
    // argv[0] is replaced while a script runs and holds the caller's pointer again on return; the
    // texts stay the caller's.
    // Internal errors: an empty argv[0]; an existing file without extension.
    PGM_PYTHON_API static bool run_python_file(int argc, const char** argv);

    // Asks the common script's get_username for the user name that belongs to `user`. Returns the
    // text (or the bytes) that the function gave, up to the first zero byte; empty on failure and
    // when the answer is neither text nor bytes.
    PGM_PYTHON_API static std::string get_username(std::string user);

    // Asks the common script's query_opn_enum for the name of an OPN code. Codes from 0x80000000
    // reach the script as negative numbers. Returns the name up to the first zero byte; empty on
    // failure and when the answer is no text.
    PGM_PYTHON_API static std::string query_opn_enum(unsigned long opn_code);

    // Asks the common script's query_opn_name for the code of an OPN name. Returns 0 to 0xFFFFFFFF;
    // 0xFFFFFFFF also stands for failure and for an answer that is no 32-bit number.
    PGM_PYTHON_API static unsigned long query_opn_name(std::string opn_name);

private:
    friend class INTERPRETER_SESSION;
    friend class WIDE_ARGUMENT_VECTOR;
    friend class BRIDGE_CALL;
    friend struct PGM_PYTHON_MGR_TEST;  // the tests of the operations below

    // interpreter_session

    // Makes the wide argument vector: `first` (dropped when empty), then `args`, each converted
    // with mbstowcs in the process's locale. Stores the number of entries in `count`. Returns an
    // array that delete_wchar_t releases; null when there is no entry. An empty text in `args` is
    // an internal error after which, when the report returns, the conversion goes on.
    static wchar_t** convert_char_to_wchar_t(std::string first, std::vector<std::string> args,
                                             int& count);

    // Releases what convert_char_to_wchar_t returned; `count` is the number that it stored. A null
    // vector goes with 0. Internal errors: a vector with count 0, an empty slot.
    static void delete_wchar_t(int count, wchar_t** wcharv);

    // Puts the suite's script folders first on the running interpreter's sys.path and tells scripts
    // the executable folder in PGM_PYTHON_BIN_DIR. A statement that fails is an internal error.
    static void setup_system_path();

    // Puts the folder of `script` first on the running interpreter's sys.path and returns the name
    // by which the script is imported. Internal errors: no script, an extension other than ".py"
    // and ".pyc", a script that does not exist, a statement that fails.
    static std::string setup_system_path(std::string script);

    // script_catalogue

    // The path of the default script that `original_file` names by catalogue name, file stem or
    // file name; `original_file` itself when a file of that name exists, when it names no default
    // script, and when that script is not installed. An empty name is an internal error.
    static std::string find_default_script(std::string original_file);

    // messages

    // Prints the pending Python exception and clears it; does nothing when none is pending.
    static void print_python_error();
};

#endif
