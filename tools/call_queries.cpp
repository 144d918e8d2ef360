// The subcommands of the queries and the memory reader.

#include <memory>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_support.h"

namespace {

void add_get_username(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand("get_username", "Print the name of a user");
    const auto user = add_text(command, "USER", "The user to look up");
    command.callback([=, &status] { status = print_text(PGM_PYTHON_MGR::get_username(*user)); });
}

void add_query_opn_enum(CLI::App& app, int& status) {
    CLI::App& command =
        *app.add_subcommand("query_opn_enum", "Print the OPN name that belongs to a code");
    const auto code = add_number(command, "CODE", "The code");
    command.callback([=, &status] { status = print_text(PGM_PYTHON_MGR::query_opn_enum(*code)); });
}

void add_query_opn_name(CLI::App& app, int& status) {
    CLI::App& command =
        *app.add_subcommand("query_opn_name", "Print the code that belongs to an OPN name");
    const auto name = add_text(command, "NAME", "The OPN name");
    command.callback([=, &status] {
        const unsigned long code = PGM_PYTHON_MGR::query_opn_name(*name);
        status = code == 0xFFFFFFFFUL ? TOOL_FAILURE : print_line(std::to_string(code));
    });
}

void add_read_mif(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand(
        "read_mif", "Read a memory-initialisation file: its width, its depth and its image");
    const auto file = add_text(command, "FILE", "The memory-initialisation file");
    const auto continuous = std::make_shared<bool>(false);
    command.add_flag("--continuous", *continuous, "Passed on to the script");
    const auto out = add_out(command);
    command.callback([=, &status] {
        unsigned long width = 0;
        unsigned long depth = 0;
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> image(
            PGM_PYTHON_MGR::read_mif(*file, *continuous, width, depth, size));
        if (image == nullptr) {
            status = TOOL_FAILURE;
            return;
        }
        print_line("width " + std::to_string(width) + ", depth " + std::to_string(depth), *out);
        status = write_bytes(*out, image.get(), size);
    });
}

}  // namespace

void add_query_commands(CLI::App& app, int& status) {
    add_get_username(app, status);
    add_query_opn_enum(app, status);
    add_query_opn_name(app, status);
    add_read_mif(app, status);
}
