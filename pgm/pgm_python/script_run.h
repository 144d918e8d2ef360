// The part of a whole script's run that needs Python, from the interpreter's start to its end.

#ifndef PGM_PGM_PYTHON_SCRIPT_RUN_H
#define PGM_PGM_PYTHON_SCRIPT_RUN_H

#include <string>
#include <vector>

#include "pgm/pgm_python/call_road.h"
#include "pgm/pgm_python/settings.h"

// All that a run needs to know.
struct RUN_REQUEST {
    // Code to run (false), or a script (true).
    bool is_script = false;
    std::string command;
    std::vector<std::string> arguments;  // the script's path and its arguments
    SETTINGS settings;
    // The announced channel of the listener, which has been started; empty for none.
    std::string announced_channel;
};

// Runs the code or the script as the main program, in this process. A script's listener has been
// started; it is completed, as `surroundings` does that, before the interpreter is finalised.
// Returns whether the run succeeded. Everything that can go wrong has been reported on return.
bool walk_run(const RUN_REQUEST& request, ROAD_SURROUNDINGS& surroundings);

#endif
