#include "tools/run_app.h"

std::unique_ptr<CLI::App> make_run_app(RUN_OPTIONS& options) {
    auto app = std::make_unique<CLI::App>(
        "Run a default script, a script file, or with -c Python code. Options stand before the "
        "script; -- ends them.",
        "pgm_python_run");
    add_tool_options(*app, options);
    // What this library leaves to scripts stays theirs.
    const std::string help = app->get_help_ptr()->get_description();
    app->set_help_flag("--help", help);
    app->add_flag("--list", options.list,
                  "List the default scripts: name, file, installed or not, and exit");
    // Read by the library.
    app->add_option(
           "SCRIPT",
           "A default script's name, the path of a .py or .pyc file, or -c and Python code")
        ->type_name("");
    app->add_option("ARGUMENT", "What the script finds in its command line")
        ->type_name("")
        ->expected(0, CLI::detail::expected_max_vector_size);
    return app;
}

std::vector<std::string> own_options(const CLI::App& app,
                                     const std::vector<std::string>& arguments) {
    std::vector<std::string> own;
    std::size_t values_to_come = 0;
    for (const std::string& argument : arguments) {
        if (values_to_come > 0) {
            --values_to_come;
        } else if (argument != "--") {
            const std::string name = argument.substr(0, argument.find('='));
            const CLI::Option* const option =
                name.compare(0, 2, "--") == 0 ? app.get_option_no_throw(name) : nullptr;
            if (option == nullptr) {
                break;
            }
            const bool has_value = name.size() < argument.size();
            values_to_come =
                has_value ? 0 : static_cast<std::size_t>(option->get_items_expected_min());
        }
        own.push_back(argument);
        if (argument == "--" && values_to_come == 0) {
            break;
        }
    }
    return own;
}
