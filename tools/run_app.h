// The command line of pgm_python_run.

#ifndef TOOLS_RUN_APP_H
#define TOOLS_RUN_APP_H

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "tools/tool_options.h"

struct RUN_OPTIONS : TOOL_OPTIONS {
    bool list = false;
};

// The description of the options, and for help of what follows them. `options` must outlive it.
std::unique_ptr<CLI::App> make_run_app(RUN_OPTIONS& options);

// The leading arguments that are the tool's own options, the values that belong to them included. A
// "--" that ends them is one of them. What follows is the library's.
std::vector<std::string> own_options(const CLI::App& app,
                                     const std::vector<std::string>& arguments);

#endif
