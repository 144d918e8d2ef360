// The command-line entry.

#include "pgm/pgm_python/pgm_python_mgr.h"

#include <string>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/own_surroundings.h"
#include "pgm/pgm_python/script_run.h"
#include "pgm/pgm_python/settings.h"
#include "pgm/pgm_python/worker_call.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

constexpr char usage[] =
    "No argument is specified.\n"
    "     1) If you want to execute a script, there must be at least one argument specified as "
    "python file script\n"
    "     2) If you want to run in command mode, first argument must be \"-c\", followed by "
    "command(s)";

// Another text in the first slot of a caller's array, until the end of the scope.
class FIRST_SLOT {
public:
    FIRST_SLOT(const char** slot, const char* text) : m_slot(slot), m_callers(*slot) {
        *slot = text;
    }
    ~FIRST_SLOT() { *m_slot = m_callers; }
    FIRST_SLOT(const FIRST_SLOT&) = delete;
    FIRST_SLOT& operator=(const FIRST_SLOT&) = delete;

private:
    const char** m_slot;
    const char* m_callers;
};

bool run(const RUN_REQUEST& request, ROAD_SURROUNDINGS& surroundings) {
    return request.settings.calls == PGM_PYTHON_CALLS::worker
               ? walk_run_in_worker(request, surroundings)
               : walk_run(request, surroundings);
}

}  // namespace

bool PGM_PYTHON_MGR::run_python_file(int argc, const char** argv) {
    if (argc <= 0 || argv == nullptr || argv[0] == nullptr) {
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "%s", usage);
        return false;
    }
    const SETTINGS settings = settings_in_force();
    BACK_CHANNEL back_channel(settings.reasons);
    OWN_SURROUNDINGS surroundings(back_channel);
    const std::string first = argv[0];
    if (first == "-c") {
        if (argc < 2 || argv[1] == nullptr) {
            PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0,
                                      "This is command mode, command(s) must be specified");
            return false;
        }
        RUN_REQUEST request;
        request.settings = settings;
        request.command = argv[1];
        return run(request, surroundings);
    }
    if (PGM_COMMON::match_extension(first, {".py", ".pyc"}) == 0 &&
        !PGM_COMMON::get_extension(first).empty()) {
        PGM_COMMON_MSG::print_msg(
            MSG_TYPE_ERROR, 0,
            "First argument %s must be Programmer default Python script name without extension or "
            "Python script with extension of .py or .pyc",
            first.c_str());
        return false;
    }
    const std::string script = find_default_script(first);
    const FIRST_SLOT slot(argv, script.c_str());
    if (!FIO_FILE_SYSTEM::exists(script)) {
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "Python script %s doest not exist",
                                  script.c_str());
        return false;
    }
    back_channel.start();
    RUN_REQUEST request;
    request.settings = settings;
    request.is_script = true;
    request.announced_channel = back_channel.announced();
    for (int index = 0; index < argc && argv[index] != nullptr; ++index) {
        request.arguments.emplace_back(argv[index]);
    }
    return run(request, surroundings);
}
