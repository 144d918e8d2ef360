// Runs a default script by its catalogue name, a script file, or ("-c") Python code:
//
//     pgm_python_run norvane_sign --help
//     pgm_python_run path/to/script.py ARGUMENT...
//     pgm_python_run -c "print('code')"

#include <algorithm>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/default_scripts.h"
#include "tools/run_app.h"
#include "tools/tool_messages.h"
#include "tools/tool_platform.h"
#include "zel/zel_fio/zel_fio.h"

namespace {

int list_scripts(bool as_json) {
    const std::vector<DEFAULT_SCRIPT> scripts = default_scripts();
    std::string text;
    if (as_json) {
        std::string objects;
        for (const DEFAULT_SCRIPT& script : scripts) {
            objects += (objects.empty() ? "" : ",") + JSON_OBJECT()
                                                          .text("name", script.name)
                                                          .text("file", script.path)
                                                          .flag("installed", script.is_installed)
                                                          .str();
        }
        text = JSON_OBJECT().json("scripts", "[" + objects + "]").str() + "\n";
    } else {
        std::size_t names = 0;
        std::size_t paths = 0;
        for (const DEFAULT_SCRIPT& script : scripts) {
            names = std::max(names, script.name.size());
            paths = std::max(paths, script.path.size());
        }
        for (const DEFAULT_SCRIPT& script : scripts) {
            text += script.name + std::string(names - script.name.size() + 2, ' ') + script.path +
                    std::string(paths - script.path.size() + 2, ' ') +
                    (script.is_installed ? "installed" : "not installed") + "\n";
        }
    }
    return print_result(text);
}

// What the library would take for an internal error.
void check_script(const std::string& script) {
    if (script.empty()) {
        throw USAGE_ERROR("the script's name is empty");
    }
    if (PGM_COMMON::get_extension(script).empty() && FIO_FILE_SYSTEM::exists(script)) {
        throw USAGE_ERROR("file '" + script +
                          "' has not the extension .py or .pyc, which a script must have");
    }
}

int run_script(TOOL_ARGUMENTS& arguments, int first) {
    if (first < arguments.count() && arguments.values()[first] != std::string("-c")) {
        check_script(arguments.values()[first]);
    }
    return PGM_PYTHON_MGR::run_python_file(arguments.count() - first, arguments.values() + first)
               ? TOOL_SUCCESS
               : TOOL_FAILURE;
}

int run_script_for_json(TOOL_ARGUMENTS& arguments, int first) {
    const int status = run_guarded([&] {
        const std::string reason = tool_platform::divert_standard_output();
        if (!reason.empty()) {
            throw std::runtime_error("the standard output cannot be kept from scripts: " + reason);
        }
        return run_script(arguments, first);
    });
    const int printed = print_result(
        JSON_OBJECT().number("status", status).json("messages", reports_as_json()).str() + "\n");
    return printed == TOOL_SUCCESS ? status : printed;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool([&] {
        TOOL_ARGUMENTS arguments(argc, argv);
        RUN_OPTIONS options;
        const std::unique_ptr<CLI::App> app = make_run_app(options);
        const std::vector<std::string> own = own_options(*app, arguments.texts());
        if (asks_for_json(own)) {
            keep_reports();
        }
        int status = TOOL_SUCCESS;
        if (!read_command_line(*app, own, status)) {
            if (status != TOOL_SUCCESS && asks_for_json(own)) {
                print_result(JSON_OBJECT()
                                 .number("status", status)
                                 .json("messages", reports_as_json())
                                 .str() +
                             "\n");
            }
            return status;
        }
        put_in_force(options);
        if (options.list) {
            return list_scripts(options.json);
        }
        const int first = 1 + static_cast<int>(own.size());
        return options.json ? run_script_for_json(arguments, first) : run_script(arguments, first);
    });
}
