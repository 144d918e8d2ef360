// Calls one operation of the library: one subcommand an operation. Results go to standard output,
// messages to standard error.

#include <iostream>

#include "tools/call_app.h"
#include "tools/tool_messages.h"

namespace {

// Makes the call that the command line asks for and prints what came of it.
int run_call(CALL& call, const CALL_OPTIONS& options) {
    const int status = run_guarded([&] {
        try {
            if (options.json && call.wants_standard_output()) {
                throw CLI::ValidationError("--out", "bytes cannot go where the JSON goes");
            }
            return call.run();
        } catch (const CLI::ParseError& error) {
            report_usage(error.what() + std::string("\nRun with --help for more information."));
            return static_cast<int>(TOOL_BAD_USAGE);
        }
    });
    if (options.json) {
        const int printed = print_result(call.members(status).str() + "\n");
        return printed == TOOL_SUCCESS ? status : printed;
    }
    const std::string lines = call.lines();
    if (lines.empty()) {
        return status;
    }
    if (call.wants_standard_output()) {
        std::cerr << lines << std::endl;
        return status;
    }
    const int printed = print_result(lines + "\n");
    return printed == TOOL_SUCCESS ? status : printed;
}

void divert_what_scripts_print() {
    const std::string reason = tool_platform::divert_standard_output();
    if (!reason.empty()) {
        throw std::runtime_error("the standard output cannot be kept from scripts: " + reason);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool([&] {
        const std::vector<std::string> arguments = TOOL_ARGUMENTS(argc, argv).texts();
        if (asks_for_json(arguments)) {
            keep_reports();
        }
        CALL call(false);
        CALL_OPTIONS options;
        int status = TOOL_SUCCESS;
        if (!read_command_line(*make_call_app(call, options), arguments, status)) {
            if (status != TOOL_SUCCESS && asks_for_json(arguments)) {
                print_result(call.members(status).str() + "\n");
            }
            return status;
        }
        put_in_force(options);
        PROCESS_SURROUNDINGS::note();
        if (options.json || call.wants_standard_output() || !options.batch.empty()) {
            divert_what_scripts_print();
        }
        return options.batch.empty() ? run_call(call, options) : run_batch(options);
    });
}
