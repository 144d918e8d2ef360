#include "pgm/pgm_python/script_run.h"

#include "pgm/pgm_python/interpreter_session.h"
#include "zel/zel_py/zel_py.h"

namespace {

bool run_source(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    try {
        return py_source_with_args(static_cast<int>(arguments.size()), argv.data());
    } catch (...) {
        return false;
    }
}

}  // namespace

bool walk_run(const RUN_REQUEST& request, ROAD_SURROUNDINGS& surroundings) {
    INTERPRETER_SESSION session(request.settings.calls);
    session.setup_system_path();
    if (!request.is_script) {
        return py_eval(request.command.c_str());
    }
    const std::string& script = request.arguments.at(0);
    session.setup_system_path(script);
    session.announce_reasons_channel(request.announced_channel);
    const bool success = run_source(request.arguments);
    surroundings.complete(success, "", script);
    return success;
}
