// Calls of Python scripts from the suite's native programs.

#ifndef PGM_PGM_PYTHON_PGM_PYTHON_MGR_H
#define PGM_PGM_PYTHON_PGM_PYTHON_MGR_H

#include <map>
#include <string>
#include <vector>

#include "pgm/pgm_python/pgm_python_export.h"

// One operation a job, all static but get_nwfmt_data, which uses no state either. Each checks its
// arguments, runs one function of one script of the installation in an interpreter of its own, and
// gives back what the function answered:
//
//     const std::string name = PGM_PYTHON_MGR::query_opn_enum(0x1001);
//     if (name.empty()) {
//         // the reasons have been reported; there is nothing to release
//     }
//
// Threads: an operation does all its work on the calling thread and may be called on any, but
// operations must not overlap, in this process or (those with a back channel) with another
// process's: the interpreter is process-wide and the back channel is one fixed port.
// An operation that is called while another one of the process has its interpreter, on whatever
// thread, is an internal error that is told before Python is touched; the other one goes on.
//
// What scripts change in the process: the handling of signals and the locale are put back when an
// operation ends. The working directory, the environment and the umask are the scripts' to change
// and stay as they leave them. docs/sessions.md says more, and what differs where calls share an
// interpreter (pgm_python_settings.h).
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

    // Asks the common script's read_mif for the memory image in a memory-initialisation file;
    // `continuous` is passed on to the script. Returns a new buffer with the image, which the
    // caller releases with delete[], and stores the memory's width and depth and the image's size
    // in bytes; an image of no bytes comes as a buffer of size 0, not as null. On failure returns
    // null and leaves width, depth and size as they were.
    // Internal error: an answer that is not a list of three elements.
    PGM_PYTHON_API static unsigned char* read_mif(std::string file, bool continuous,
                                                  unsigned long& width, unsigned long& depth,
                                                  unsigned long& size);

    // The operations on certificates take and give bytes as follows. Content must not be null and
    // its size must be a positive multiple of 8. Key files are a ".zky" and a ".pem" file, each
    // the empty text or an existing file. What breaks these rules is an internal error, content
    // first. A returned buffer is released by the caller with delete[]; an empty answer is null.

    // Has compact_cert_sign.pyc make a compact certificate of `content` and the two numbers. Stores
    // the size of what it returns in `out_size`; on failure returns null and stores 0.
    PGM_PYTHON_API static unsigned char* generate_compact_cert(
        unsigned long& out_size, unsigned long first_number, unsigned long second_number,
        unsigned char* content, unsigned long content_size, std::string zky, std::string pem);

    // Has norvane_sign.py sign a compact certificate. The script finds the key files in its command
    // line, as "--zky=" and "--pem=" followed by the path. Stores the size of the signed
    // certificate that it returns in `out_size`; on failure returns null and stores 0.
    PGM_PYTHON_API static unsigned char* sign_compact_ccert(unsigned long& out_size,
                                                            unsigned char* unsign_content,
                                                            unsigned long unsign_content_size,
                                                            std::string zky, std::string pem);

    // Has compact_cert_sign.pyc verify the key chain of a compact certificate. Returns true when
    // the script's function returned, whatever it returned, and false when it raised or could not
    // be called.
    PGM_PYTHON_API static bool verify_compact_cert_keychain(unsigned char* content,
                                                            unsigned long content_size);

    // The same by the function external_verify_ccert_function of another script: `script` is a file
    // name with extension in the common script folder. An empty one is an internal error, before
    // those of the content.
    PGM_PYTHON_API static bool verify_compact_cert_keychain(std::string script,
                                                            unsigned char* content,
                                                            unsigned long content_size);

    // Asks the common script's get_zek_root_key for the root key in a key file; `text_argument` is
    // passed on to the script. Returns a new buffer of 32 bytes, which the caller overwrites and
    // releases with delete[], and stores 32 in `size`. No copy of the key stays in the interpreter.
    // When the script fails: null and size 0. When it cannot be loaded or has no such function: a
    // buffer of 32 zeros, the caller's to release all the same, and size 0.
    // Internal errors: an empty `zek_file`; an answer that is not True.
    PGM_PYTHON_API static unsigned char* get_zek_root_key(std::string zek_file, unsigned long& size,
                                                          std::string text_argument);

    // Hands a bitstream to a function of a script and returns what the function makes of it, in a
    // new buffer that the caller releases with delete[], its size in `out_size`; null and size 0
    // when the function gave no bytes. `python_file` is the name of a default script or a script's
    // path, `script_args` the script's command line after its own path. `data` may be null with
    // size 0. On failure returns null and leaves `out_size` as it was.
    // Internal errors: an empty `python_file`, `function_name` or element of `script_args`.
    PGM_PYTHON_API static unsigned char* modify_bitstream(
        const unsigned char* data, unsigned long size, unsigned long& out_size,
        std::string python_file, std::string function_name, std::vector<std::string> script_args);

    // Asks a script of the network-format folder for block-RAM or transceiver data. `python_file`
    // is the script's file name with extension in that folder, whose path is the common programmer
    // folder's followed by "nwfmt". `python_function` is "get_bram_chunks" or "get_xcvr_chunks",
    // whose chunks are returned one after another, or "get_bram_hash_and_size" or
    // "get_xcvr_hash_and_size", whose hash is returned and whose size is stored in `size_out`. The
    // other arguments are passed on to the script. Returns no bytes on failure; `size_out` is
    // stored by a hash function's success only.
    // Internal errors: an empty file or function name, a missing script, another function, a hash
    // function's answer that is not a list of two. A chunk or a hash that is no bytearray and a map
    // with a text that is not UTF-8 make a failed call. Chunks that do not come in a list are none,
    // and a size that is no int of 32 bits is stored as 0xFFFFFFFF; both are successes.
    PGM_PYTHON_API std::vector<unsigned char> get_nwfmt_data(
        const std::string& python_file, const std::string& python_function,
        const std::string& text_1, const std::map<std::string, std::string>& dict_1,
        const std::map<std::string, std::string>& dict_2, const std::string& text_2,
        const std::map<std::string, std::string>& dict_3,
        const std::map<std::string, std::string>& dict_4, unsigned long& size_out);

    // Has rim_generator.pyc write a reference-integrity manifest for a raw binary configuration
    // file. `rim_number` reaches the script as a signed 32-bit number. Returns true when the
    // script's function returned, whatever it returned; whether `output_file` was written is not
    // checked. Internal errors: an empty `rbf_file`, `family` or `output_file`.
    PGM_PYTHON_API static bool generate_rim(std::string rbf_file, std::string family,
                                            unsigned long rim_number, std::string output_file);

    // Runs the database script of the unshipped programmer folder with a command line. Returns the
    // text (or the bytes) that it answered, up to the first zero byte; empty on failure. `found`
    // tells whether the script is installed: an installation without it is no failure, and nothing
    // is reported.
    // Internal error: an empty argument.
    PGM_PYTHON_API static std::string execute_mysql(std::vector<std::string> arguments,
                                                    bool& found);

    // Asks the common script's sync_p4file to fetch the depot file `p4source` into `folder`.
    // Returns the script's text up to its first zero byte; empty on failure and when the answer is
    // no text. Internal errors: an empty `folder` or `p4source`.
    PGM_PYTHON_API static std::string sync_p4file(std::string folder, std::string p4source);

private:
    friend class INTERPRETER_SESSION;
    friend class WIDE_ARGUMENT_VECTOR;
    friend class CALL_ROAD;
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
