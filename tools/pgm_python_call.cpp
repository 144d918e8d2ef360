// Calls one operation of the library: one subcommand an operation. Results go to standard output,
// messages to standard error.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/tool_messages.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

// A 32-bit number, decimal or with 0x in hexadecimal; anything else is bad usage.
std::uint32_t number_of(const std::string& option, const std::string& text) {
    const bool hexadecimal = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char* const begin = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t number = 0;
    const std::from_chars_result read = std::from_chars(begin, end, number, hexadecimal ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != end) {
        throw CLI::ValidationError(option, "'" + text + "' is not a number from 0 to 0xFFFFFFFF");
    }
    return number;
}

// Adds a required number to a subcommand.
std::shared_ptr<std::uint32_t> add_number(CLI::App& command, const std::string& name,
                                          const std::string& description) {
    const auto number = std::make_shared<std::uint32_t>();
    command
        .add_option_function<std::string>(
            name, [number, name](const std::string& text) { *number = number_of(name, text); },
            description + ", decimal or with 0x in hexadecimal")
        ->required()
        ->type_name("NUMBER");
    return number;
}

template <typename RESULT>
TOOL_STATUS print(const RESULT& result) {
    std::cout << result << std::endl;
    if (!std::cout) {
        msg_line(MSG_TYPE_ERROR, "the result cannot be written to standard output");
        return TOOL_FAILURE;
    }
    return TOOL_SUCCESS;
}

TOOL_STATUS print_text(const std::string& text) {
    return text.empty() ? TOOL_FAILURE : print(text);
}

void add_get_username(CLI::App& app, int& status) {
    CLI::App* const command = app.add_subcommand("get_username", "Print the name of a user");
    const auto user = std::make_shared<std::string>();
    command->add_option("USER", *user, "The user to look up")->required();
    command->callback(
        [user, &status] { status = print_text(PGM_PYTHON_MGR::get_username(*user)); });
}

void add_query_opn_enum(CLI::App& app, int& status) {
    CLI::App* const command =
        app.add_subcommand("query_opn_enum", "Print the OPN name that belongs to a code");
    const auto code = add_number(*command, "CODE", "The code");
    command->callback(
        [code, &status] { status = print_text(PGM_PYTHON_MGR::query_opn_enum(*code)); });
}

void add_query_opn_name(CLI::App& app, int& status) {
    CLI::App* const command =
        app.add_subcommand("query_opn_name", "Print the code that belongs to an OPN name");
    const auto name = std::make_shared<std::string>();
    command->add_option("NAME", *name, "The OPN name")->required();
    command->callback([name, &status] {
        const unsigned long code = PGM_PYTHON_MGR::query_opn_name(*name);
        status = code == 0xFFFFFFFFUL ? TOOL_FAILURE : print(code);
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
        if (status == TOOL_FAILURE && !tool_has_reported()) {
            msg_line(MSG_TYPE_ERROR, "the script gave no usable answer");
        }
        return status;
    });
}
