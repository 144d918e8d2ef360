// The command line of pgm_python_call.

#ifndef TOOLS_CALL_APP_H
#define TOOLS_CALL_APP_H

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "tools/call_support.h"
#include "tools/tool_options.h"

struct CALL_OPTIONS : TOOL_OPTIONS {
    // The file of calls to make, "-" for standard input; empty for the one call of the command
    // line.
    std::string batch;
};

// The description of the whole command line: reading one by it has `call` ask for what is given.
// Both must outlive it.
std::unique_ptr<CLI::App> make_call_app(CALL& call, CALL_OPTIONS& options);

// The description of a line of a batch: an operation and its arguments, and nothing else.
std::unique_ptr<CLI::App> make_batch_line_app(CALL& call);

// The functions that get_nwfmt_data can ask for.
std::vector<std::string> network_format_functions();

// Makes one call a line of options.batch in this process and prints a result a line. Returns the
// status of the whole batch.
int run_batch(const CALL_OPTIONS& options);

// Takes a line apart as a shell does: blanks part words, quotes and backslashes keep what follows,
// # begins a comment; nothing is expanded. Returns false, with the reason, when it cannot be.
bool split_words(const std::string& line, std::vector<std::string>& words, std::string& reason);

#endif
