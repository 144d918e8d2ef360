// The subcommands for data extraction, manifests, databases and depot files.

#include <algorithm>
#include <array>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_app.h"
#include "tools/call_support.h"
#include "tools/default_scripts.h"

namespace {

// The functions of the network-format scripts.
constexpr std::array<const char*, 2> chunk_functions = {"get_bram_chunks", "get_xcvr_chunks"};
constexpr std::array<const char*, 2> hash_functions = {"get_bram_hash_and_size",
                                                       "get_xcvr_hash_and_size"};

bool is_one_of(const std::string& function, const std::array<const char*, 2>& functions) {
    return std::find(functions.begin(), functions.end(), function) != functions.end();
}

void add_get_nwfmt_data(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand(
        "get_nwfmt_data", "Extract block-RAM or transceiver data in network format");
    const auto script =
        add_name(command, "SCRIPT", "The script's file name in the network-format folder");
    const auto function = add_name(
        command, "FUNCTION",
        "get_bram_chunks, get_bram_hash_and_size, get_xcvr_chunks or get_xcvr_hash_and_size");
    const auto text_1 = add_text(command, "--text-1", "The first text for the script");
    const auto dict_1 = add_map(command, "--dict-1", "An entry of the first map");
    const auto dict_2 = add_map(command, "--dict-2", "An entry of the second map");
    const auto text_2 = add_text(command, "--text-2", "The second text for the script");
    const auto dict_3 = add_map(command, "--dict-3", "An entry of the third map");
    const auto dict_4 = add_map(command, "--dict-4", "An entry of the fourth map");
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        const bool gives_size = is_one_of(*function, hash_functions);
        if (!gives_size && !is_one_of(*function, chunk_functions)) {
            throw CLI::ValidationError("FUNCTION",
                                       "'" + *function + "' is none of the network format's");
        }
        require_script_extension("SCRIPT", *script);
        // The folder of these scripts is not below the common one: its name is the longer one.
        require_common_script("nwfmt/" + *script);
        unsigned long size = no_number;
        const std::vector<unsigned char> data = PGM_PYTHON_MGR().get_nwfmt_data(
            *script, *function, *text_1, *dict_1, *dict_2, *text_2, *dict_3, *dict_4, size);
        if (tool_has_reported()) {
            return;
        }
        if (data.empty()) {
            call.fail("the script gave no bytes");
        } else if (gives_size && size == no_number) {
            call.fail("the script gave no size");
        } else {
            if (gives_size) {
                call.add_fact("data_size", "size", size);
            }
            call.answer(*out, data.data(), data.size());
        }
    });
}

void add_generate_rim(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand(
        "generate_rim", "Make a reference-integrity manifest for a raw binary configuration file");
    const auto rbf = add_path(command, "RBF", "The configuration file");
    const auto family = add_name(command, "FAMILY", "The device family");
    const auto number = add_number(command, "NUMBER", "A number for the manifest");
    const auto output = add_path(command, "OUTPUT", "The manifest file to write");
    on_call(command, call, [=, &call] {
        require_common_script("/python/rim_generator.pyc");
        if (PGM_PYTHON_MGR::generate_rim(*rbf, *family, *number, *output)) {
            call.answer_done("manifest " + *output + " made");
        }
    });
}

void add_execute_mysql(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand("execute_mysql", "Ask a database and print its answer");
    const auto arguments =
        add_further_arguments(command, "The database script's command line, best after --");
    on_call(command, call, [=, &call] {
        bool found = false;
        std::string answer = PGM_PYTHON_MGR::execute_mysql(*arguments, found);
        if (!found) {
            throw USAGE_ERROR("the database script is not installed");
        } else if (!tool_has_reported()) {
            // An answer of nothing is one, too.
            if (!answer.empty() && answer.back() == '\n') {
                answer.pop_back();
            }
            call.answer_rows(answer);
        }
    });
}

void add_sync_p4file(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand("sync_p4file", "Fetch a depot file into a folder");
    const auto folder = add_path(command, "FOLDER", "The folder");
    const auto source = add_name(command, "SOURCE", "The depot file");
    on_call(command, call, [=, &call] {
        require_common_script("/python/pgm_python_common_function.pyc");
        call.answer(PGM_PYTHON_MGR::sync_p4file(*folder, *source));
    });
}

}  // namespace

std::vector<std::string> network_format_functions() {
    std::vector<std::string> functions(chunk_functions.begin(), chunk_functions.end());
    functions.insert(functions.end(), hash_functions.begin(), hash_functions.end());
    return functions;
}

void add_data_commands(CLI::App& app, CALL& call) {
    add_get_nwfmt_data(app, call);
    add_generate_rim(app, call);
    add_execute_mysql(app, call);
    add_sync_p4file(app, call);
}
