// What the subcommands of pgm_python_call have in common.

#ifndef TOOLS_CALL_SUPPORT_H
#define TOOLS_CALL_SUPPORT_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/tool_messages.h"

// Each adds the subcommands of a group; the one that is called stores its status.
void add_query_commands(CLI::App& app, int& status);
void add_security_commands(CLI::App& app, int& status);
void add_data_commands(CLI::App& app, int& status);

// Adds a text to a subcommand; a positional one (its name without dashes) is required.
std::shared_ptr<std::string> add_text(CLI::App& command, const std::string& name,
                                      const std::string& description);

// Adds a required number: 0 to 0xFFFFFFFF, decimal or with 0x in hexadecimal.
std::shared_ptr<std::uint32_t> add_number(CLI::App& command, const std::string& name,
                                          const std::string& description);

// Adds an existing file of which the operation gets the bytes, not the path. What the returned
// object holds has been read when the subcommand is called.
std::shared_ptr<std::vector<unsigned char>> add_file_content(CLI::App& command,
                                                             const std::string& name,
                                                             const std::string& description);

// Adds a map, given as KEY=VALUE any number of times.
std::shared_ptr<std::map<std::string, std::string>> add_map(CLI::App& command,
                                                            const std::string& name,
                                                            const std::string& description);

// Adds the texts that follow all options, or follow "--".
std::shared_ptr<std::vector<std::string>> add_further_arguments(CLI::App& command,
                                                                const std::string& description);

// Adds --out, which says where a byte result goes; see write_bytes.
std::shared_ptr<std::string> add_out(CLI::App& command);

// Prints a line to standard output, or to standard error when bytes go to standard output.
TOOL_STATUS print_line(const std::string& line, const std::string& out = "");

// Prints a text result; an empty one is a failure.
TOOL_STATUS print_text(const std::string& text);

// Writes a byte result to a file, or with "-" to standard output; without either, describes it. The
// file is complete or unchanged.
TOOL_STATUS write_bytes(const std::string& out, const unsigned char* bytes, std::size_t size);

// The two's content as the operations that take a pointer want it: null when there is none.
inline unsigned char* data_of(std::vector<unsigned char>& content) {
    return content.empty() ? nullptr : content.data();
}

#endif
