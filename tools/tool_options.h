// The options that both tools have.

#ifndef TOOLS_TOOL_OPTIONS_H
#define TOOLS_TOOL_OPTIONS_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/json_text.h"

struct TOOL_OPTIONS {
    bool json = false;
    bool traceback = false;
    // The kind of session; empty where the environment is to tell.
    std::string calls;
};

// The kinds of session.
const std::vector<std::string>& kinds_of_session();

// Adds --help, --version, --json, --traceback and --calls to a tool's description, whose name must
// be set. `options` must outlive it.
void add_tool_options(CLI::App& app, TOOL_OPTIONS& options);

// Whether --json stands among the options that lead the command line. For what has to be told
// before the command line has been read.
bool asks_for_json(const std::vector<std::string>& arguments);

// Puts the options into force: for the library by the environment, which it reads.
void put_in_force(const TOOL_OPTIONS& options);

// Reads a command line without the program's name by a tool's description. Help, version and
// mistakes are told. Returns true when work is left to do; else `status` is the tool's.
bool read_command_line(CLI::App& app, std::vector<std::string> arguments, int& status);

// Prints text to the standard output. What cannot be printed is told on standard error; returns the
// status.
int print_result(const std::string& text);

#endif
