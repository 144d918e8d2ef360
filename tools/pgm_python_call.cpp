// Calls one operation of the library: one subcommand an operation. Results go to standard output,
// messages to standard error.

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/tool_messages.h"

namespace {

// Whether an operation failed shows in its messages; where it has a failure value that no success
// gives, that value tells.
TOOL_STATUS print_text(const std::string& text) {
    if (text.empty()) {
        return TOOL_FAILURE;
    }
    std::cout << text << std::endl;
    return TOOL_SUCCESS;
}

void add_get_username(CLI::App& app, int& status) {
    CLI::App* const command = app.add_subcommand("get_username", "Print the name of a user");
    auto user = std::make_shared<std::string>();
    command->add_option("USER", *user, "The user to look up")->required();
    command->callback([user, &status] { status = print_text(PGM_PYTHON_MGR::get_username(*user)); });
}

void add_query_opn_enum(CLI::App& app, int& status) {
    CLI::App* const command =
        app.add_subcommand("query_opn_enum", "Print the OPN name that belongs to a code");
    auto code = std::make_shared<std::uint32_t>();
    command->add_option("CODE", *code, "The code, decimal or with 0x in hexadecimal")->required();
    command->callback(
        [code, &status] { status = print_text(PGM_PYTHON_MGR::query_opn_enum(*code)); });
}

void add_query_opn_name(CLI::App& app, int& status) {
    CLI::App* const command =
        app.add_subcommand("query_opn_name", "Print the code that belongs to an OPN name");
    auto name = std::make_shared<std::string>();
    command->add_option("NAME", *name, "The OPN name")->required();
    command->callback([name, &status] {
        const unsigned long code = PGM_PYTHON_MGR::query_opn_name(*name);
        if (code == 0xFFFFFFFFUL) {
            status = TOOL_FAILURE;
            return;
        }
        std::cout << code << std::endl;
    });
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool([&] {
        CLI::App app("Call one operation of pgm_python.");
        app.require_subcommand(1);
        int status = TOOL_SUCCESS;
        add_get_username(app, status);
        add_query_opn_enum(app, status);
        add_query_opn_name(app, status);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? static_cast<int>(TOOL_SUCCESS)
                                        : static_cast<int>(TOOL_BAD_USAGE);
        }
        return status;
    });
}
