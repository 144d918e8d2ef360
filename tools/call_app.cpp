#include "tools/call_app.h"

namespace {

void add_operations(CLI::App& app, CALL& call) {
    add_query_commands(app, call);
    add_security_commands(app, call);
    add_data_commands(app, call);
}

}  // namespace

std::unique_ptr<CLI::App> make_call_app(CALL& call, CALL_OPTIONS& options) {
    auto app = std::make_unique<CLI::App>(
        "Call one operation of pgm_python, or many with --batch. Options stand before the "
        "operation.",
        "pgm_python_call");
    add_tool_options(*app, options);
    app->add_option("--batch", options.batch,
                    "Make one call a line of this file, - for standard input: each line holds an "
                    "operation and its arguments, quoted as in a shell")
        ->type_name("FILE");
    app->footer(
        "Exit status: 0 success, 1 failure, 2 bad usage or a script that is not installed, 3 "
        "internal error; of a batch 0 when all calls succeeded, else 1.");
    app->require_subcommand(0, 1);
    add_operations(*app, call);
    app->callback([&app_read = *app, &options] {
        const bool has_operation = !app_read.get_subcommands().empty();
        if (options.batch.empty() != has_operation) {
            throw CLI::ValidationError(has_operation ? "--batch cannot stand with an operation"
                                                     : "An operation is required");
        }
    });
    return app;
}

std::unique_ptr<CLI::App> make_batch_line_app(CALL& call) {
    auto app = std::make_unique<CLI::App>("", "pgm_python_call");
    app->set_help_flag();
    app->require_subcommand(0, 1);
    add_operations(*app, call);
    app->callback([&app_read = *app] {
        if (app_read.get_subcommands().empty()) {
            throw CLI::ValidationError("An operation is required");
        }
    });
    return app;
}
