// What the subcommands of pgm_python_call have in common.

#ifndef TOOLS_CALL_SUPPORT_H
#define TOOLS_CALL_SUPPORT_H

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/json_text.h"
#include "tools/tool_messages.h"
#include "tools/tool_platform.h"

// What operations store for an answer that is no 32-bit number.
constexpr unsigned long no_number = 0xFFFFFFFFUL;

// The current folder and the mask of new files' permissions, which scripts change for the whole
// process where their session is in it: the tool's own files are not to follow them.
struct PROCESS_SURROUNDINGS {
    static void note();
    static void put_back();
};

// One call of an operation: what is asked for, and what came of it.
class CALL {
public:
    // A call of a batch has the standard streams for itself neither for input nor for bytes.
    explicit CALL(bool is_of_batch) : m_is_of_batch(is_of_batch) {}

    bool is_of_batch() const { return m_is_of_batch; }

    // Says what is to be done. The command line has been read when `work` runs; it checks what the
    // library would take for an internal error (USAGE_ERROR, CLI::ValidationError), calls the
    // operation and gives its answer to one of the functions below.
    void ask_for(const std::string& operation, std::function<void()> work);

    // Whether bytes are to go to the standard output, so that nothing else may.
    bool wants_standard_output() const { return m_wants_standard_output; }
    void want_standard_output() { m_wants_standard_output = true; }

    // Does it. Nothing of the answer is printed but bytes that go to the standard output.
    // Returns the status, which is a failure when no answer was given; then that is reported where
    // nothing else was.
    int run();

    // Whether there is something to do.
    bool is_asked() const { return static_cast<bool>(m_work); }

    // The answers: a text, of which an empty one is none; a number; a text that may be empty; a
    // line that says that all went well.
    void answer(const std::string& text);
    void answer(unsigned long number);
    void answer_rows(const std::string& rows);
    void answer_done(const std::string& line) { answer_rows(line); }

    // Bytes: written to a file, or with "-" to standard output; without either, described. The
    // file is complete or unchanged. Nothing of a secret is described but the size.
    void answer(const std::string& out, const unsigned char* bytes, std::size_t size,
                tool_platform::SECRECY secrecy = tool_platform::SECRECY::OPEN);

    // A number beside the bytes, to be given before them: `name` in JSON, `label` elsewhere.
    void add_fact(const std::string& name, const std::string& label, unsigned long value);

    // Makes the call a failure and says why, where nothing else does.
    void fail(const std::string& why);

    // The answer as lines for people, without a line end at the end; empty when there is none.
    // Those beside bytes on the standard output are for standard error.
    std::string lines() const;

    // The operation, the status, the answer and the kept reports as members of a JSON object.
    JSON_OBJECT members(int status) const;

private:
    bool m_is_of_batch;
    std::string m_operation;
    std::function<void()> m_work;
    bool m_is_answered = false;
    bool m_wants_standard_output = false;
    std::string m_facts;
    std::vector<std::string> m_lines;
    JSON_OBJECT m_members;
};

// Each adds the subcommands of a group.
void add_query_commands(CLI::App& app, CALL& call);
void add_security_commands(CLI::App& app, CALL& call);
void add_data_commands(CLI::App& app, CALL& call);

// Has a call ask for the subcommand's operation when that is given; see CALL::ask_for.
void on_call(CLI::App& command, CALL& call, std::function<void()> work);

// Adds a text to a subcommand; a positional one (its name without dashes) is required.
std::shared_ptr<std::string> add_text(CLI::App& command, const std::string& name,
                                      const std::string& description);

// The same for a text that must not be empty.
std::shared_ptr<std::string> add_name(CLI::App& command, const std::string& name,
                                      const std::string& description);

// The same for the name of a file or folder.
std::shared_ptr<std::string> add_path(CLI::App& command, const std::string& name,
                                      const std::string& description);

// Adds an option that names an existing file with an extension (".pem"), or is empty.
std::shared_ptr<std::string> add_key_file(CLI::App& command, const std::string& name,
                                          const std::string& extension,
                                          const std::string& description);

// Adds a required number: 0 to 0xFFFFFFFF, decimal or with 0x in hexadecimal.
std::shared_ptr<std::uint32_t> add_number(CLI::App& command, const std::string& name,
                                          const std::string& description);

// Adds an existing file of which the operation gets the bytes, not the path; "-" is the standard
// input. What the returned object holds has been read when the call's work runs.
std::shared_ptr<std::vector<unsigned char>> add_file_content(CLI::App& command, CALL& call,
                                                             const std::string& name,
                                                             const std::string& description);

// The same for content of a certificate: a positive multiple of 8 bytes.
std::shared_ptr<std::vector<unsigned char>> add_certificate(CLI::App& command, CALL& call,
                                                            const std::string& name,
                                                            const std::string& description);

// Adds a map, given as KEY=VALUE any number of times.
std::shared_ptr<std::map<std::string, std::string>> add_map(CLI::App& command,
                                                            const std::string& name,
                                                            const std::string& description);

// Adds the texts that follow all options, or follow "--". None may be empty.
std::shared_ptr<std::vector<std::string>> add_further_arguments(CLI::App& command,
                                                                const std::string& description);

// Adds --out, which says where a byte result goes; see CALL::answer.
std::shared_ptr<std::string> add_out(CLI::App& command, CALL& call);

// Throws CLI::ValidationError of the argument `name` when a script that is given has another
// extension than ".py" and ".pyc".
void require_script_extension(const std::string& name, const std::string& script);

// Throws USAGE_ERROR when a script of the installation is missing: `script` is its name below the
// common programmer folder, such as "/python/x.pyc" (the name is pasted to the folder's).
void require_common_script(const std::string& script);

// The two's content as the operations that take a pointer want it: null when there is none.
inline unsigned char* data_of(std::vector<unsigned char>& content) {
    return content.empty() ? nullptr : content.data();
}

#endif
