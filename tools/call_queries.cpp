// The subcommands of the queries and the memory reader.

#include <memory>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_support.h"

namespace {

constexpr char common_functions[] = "/python/pgm_python_common_function.pyc";

void add_get_username(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand("get_username", "Print the name of a user");
    const auto user = add_text(command, "USER", "The user to look up");
    on_call(command, call, [=, &call] {
        require_common_script(common_functions);
        call.answer(PGM_PYTHON_MGR::get_username(*user));
    });
}

void add_query_opn_enum(CLI::App& app, CALL& call) {
    CLI::App& command =
        *app.add_subcommand("query_opn_enum", "Print the OPN name that belongs to a code");
    const auto code = add_number(command, "CODE", "The code");
    on_call(command, call, [=, &call] {
        require_common_script(common_functions);
        call.answer(PGM_PYTHON_MGR::query_opn_enum(*code));
    });
}

void add_query_opn_name(CLI::App& app, CALL& call) {
    CLI::App& command =
        *app.add_subcommand("query_opn_name", "Print the code that belongs to an OPN name");
    const auto name = add_text(command, "NAME", "The OPN name");
    on_call(command, call, [=, &call] {
        require_common_script(common_functions);
        const unsigned long code = PGM_PYTHON_MGR::query_opn_name(*name);
        if (code != no_number) {
            call.answer(code);
        }
    });
}

void add_read_mif(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand(
        "read_mif", "Read a memory-initialisation file: its width, its depth and its image");
    const auto file = add_path(command, "FILE", "The memory-initialisation file");
    const auto continuous = std::make_shared<bool>(false);
    command.add_flag("--continuous", *continuous, "Passed on to the script");
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        require_common_script(common_functions);
        unsigned long width = 0;
        unsigned long depth = 0;
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> image(
            PGM_PYTHON_MGR::read_mif(*file, *continuous, width, depth, size));
        if (image == nullptr) {
            return;
        }
        // A memory without words has an image of no bytes.
        if (width == no_number || depth == no_number || (size == 0 && depth != 0)) {
            call.fail("the script gave no usable width, depth and image");
        } else {
            call.add_fact("width", "width", width);
            call.add_fact("depth", "depth", depth);
            call.answer(*out, image.get(), size);
        }
    });
}

}  // namespace

void add_query_commands(CLI::App& app, CALL& call) {
    add_get_username(app, call);
    add_query_opn_enum(app, call);
    add_query_opn_name(app, call);
    add_read_mif(app, call);
}
