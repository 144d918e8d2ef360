#include "tools/tool_options.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "tools/tool_messages.h"
#include "tools/tool_platform.h"

const std::vector<std::string>& kinds_of_session() {
    static const std::vector<std::string> kinds = {"fresh", "kept", "worker"};
    return kinds;
}

void add_tool_options(CLI::App& app, TOOL_OPTIONS& options) {
    const std::string name = app.get_name();
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag(
        "--version", [name] { return version_text(name); },
        "Print the version and the Python that is linked, and exit");
    app.footer("Exit status: 0 success, 1 failure, 2 bad usage, 3 internal error.");
    app.add_flag(
           "--json", options.json,
           "Print results and messages as JSON, one object a line; what scripts print goes to "
           "standard error")
        ->disable_flag_override();
    app.add_flag("--traceback", options.traceback,
                 "Print the traceback of a function that raised (PGM_PYTHON_TRACEBACK=1)")
        ->disable_flag_override();
    app.add_option_function<std::string>(
           "--calls",
           [&options](const std::string& kind) {
               const std::vector<std::string>& kinds = kinds_of_session();
               if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
                   throw CLI::ValidationError("--calls",
                                              "'" + kind + "' is not fresh, kept or worker");
               }
               options.calls = kind;
           },
           "The kind of session for calls: fresh, kept or worker (PGM_PYTHON_CALLS)")
        ->type_name("KIND");
}

bool asks_for_json(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "--json") {
            return true;
        }
        if (argument == "--" || argument.compare(0, 1, "-") != 0) {
            const auto before = &argument == arguments.data() ? std::string() : *(&argument - 1);
            if (before != "--calls" && before != "--batch") {
                return false;
            }
        }
    }
    return false;
}

void put_in_force(const TOOL_OPTIONS& options) {
    if (options.traceback) {
        tool_platform::set_environment("PGM_PYTHON_TRACEBACK", "1");
    }
    if (!options.calls.empty()) {
        tool_platform::set_environment("PGM_PYTHON_CALLS", options.calls);
    }
}

bool read_command_line(CLI::App& app, std::vector<std::string> arguments, int& status) {
    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(std::move(arguments));
        return true;
    } catch (const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream mistakes;
        if (app.exit(error, output, mistakes) == 0) {
            status = print_result(output.str());
        } else {
            report_usage(error.what() + std::string("\nRun with --help for more information."));
            status = TOOL_BAD_USAGE;
        }
    }
    return false;
}

int print_result(const std::string& text) {
    const std::string reason =
        tool_platform::write_to_standard_output(text.data(), text.size(), true);
    if (reason.empty()) {
        return TOOL_SUCCESS;
    }
    // Reports that are kept would have to be printed there, too.
    std::cerr << "error: the result cannot be written to standard output: " << reason << std::endl;
    return TOOL_FAILURE;
}
