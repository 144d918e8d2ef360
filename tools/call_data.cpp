// The subcommands for data extraction, manifests, databases and depot files.

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_support.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

void add_get_nwfmt_data(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand(
        "get_nwfmt_data", "Extract block-RAM or transceiver data in network format");
    const auto script =
        add_text(command, "SCRIPT", "The script's file name in the network-format folder");
    const auto function = add_text(
        command, "FUNCTION",
        "get_bram_chunks, get_bram_hash_and_size, get_xcvr_chunks or get_xcvr_hash_and_size");
    const auto text_1 = add_text(command, "--text-1", "The first text for the script");
    const auto dict_1 = add_map(command, "--dict-1", "An entry of the first map");
    const auto dict_2 = add_map(command, "--dict-2", "An entry of the second map");
    const auto text_2 = add_text(command, "--text-2", "The second text for the script");
    const auto dict_3 = add_map(command, "--dict-3", "An entry of the third map");
    const auto dict_4 = add_map(command, "--dict-4", "An entry of the fourth map");
    const auto out = add_out(command);
    command.callback([=, &status] {
        const bool gives_size = function->find("_hash_and_size") != std::string::npos;
        unsigned long size = 0;
        const std::vector<unsigned char> data = PGM_PYTHON_MGR().get_nwfmt_data(
            *script, *function, *text_1, *dict_1, *dict_2, *text_2, *dict_3, *dict_4, size);
        if (tool_has_reported()) {
            status = TOOL_FAILURE;
            return;
        }
        if (gives_size) {
            print_line("size " + std::to_string(size), *out);
        }
        status = write_bytes(*out, data.data(), data.size());
    });
}

void add_generate_rim(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand(
        "generate_rim", "Make a reference-integrity manifest for a raw binary configuration file");
    const auto rbf = add_text(command, "RBF", "The configuration file");
    const auto family = add_text(command, "FAMILY", "The device family");
    const auto number = add_number(command, "NUMBER", "A number for the manifest");
    const auto output = add_text(command, "OUTPUT", "The manifest file to write");
    command.callback([=, &status] {
        status = PGM_PYTHON_MGR::generate_rim(*rbf, *family, *number, *output)
                     ? print_line("manifest " + *output + " made")
                     : TOOL_FAILURE;
    });
}

void add_execute_mysql(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand("execute_mysql", "Ask a database and print its answer");
    const auto arguments =
        add_further_arguments(command, "The database script's command line, best after --");
    command.callback([=, &status] {
        bool found = false;
        std::string answer = PGM_PYTHON_MGR::execute_mysql(*arguments, found);
        if (!found) {
            msg_line(MSG_TYPE_ERROR, "the database script is not installed");
        }
        if (tool_has_reported()) {
            status = TOOL_FAILURE;
        } else if (!answer.empty()) {
            if (answer.back() == '\n') {
                answer.pop_back();
            }
            status = print_line(answer);
        }
    });
}

void add_sync_p4file(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand("sync_p4file", "Fetch a depot file into a folder");
    const auto folder = add_text(command, "FOLDER", "The folder");
    const auto source = add_text(command, "SOURCE", "The depot file");
    command.callback(
        [=, &status] { status = print_text(PGM_PYTHON_MGR::sync_p4file(*folder, *source)); });
}

}  // namespace

void add_data_commands(CLI::App& app, int& status) {
    add_get_nwfmt_data(app, status);
    add_generate_rim(app, status);
    add_execute_mysql(app, status);
    add_sync_p4file(app, status);
}
