// Calls one operation of the library: one subcommand an operation. Results go to standard output,
// messages to standard error.

#include <CLI/CLI.hpp>

#include "tools/call_support.h"
#include "tools/tool_messages.h"
#include "zel/zel_msg/zel_msg.h"

int main(int argc, char** argv) {
    return run_tool([&] {
        TOOL_ARGUMENTS arguments(argc, argv);
        CLI::App app("Call one operation of pgm_python.");
        app.require_subcommand(1);
        int status = TOOL_SUCCESS;
        add_query_commands(app, status);
        add_security_commands(app, status);
        add_data_commands(app, status);
        try {
            app.parse(arguments.count(), arguments.values());
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? static_cast<int>(TOOL_SUCCESS)
                                        : static_cast<int>(TOOL_BAD_USAGE);
        }
        if (status == TOOL_FAILURE && !tool_has_reported()) {
            msg_line(MSG_TYPE_ERROR, "the script gave no usable answer");
        }
        return status;
    });
}
