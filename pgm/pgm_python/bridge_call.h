// One call of a bridge.
//
// A bridge states what is its own: a BRIDGE (its facts), the rows of its argument tuple, and the
// form of the answer. The call does the rest, in this order:
//
//     early listener . script and function checks . the road through Python (call_road.h) .
//     [early: completion]

#ifndef PGM_PGM_PYTHON_BRIDGE_CALL_H
#define PGM_PGM_PYTHON_BRIDGE_CALL_H

#include <string>
#include <vector>

#include "pgm/pgm_python/bridge.h"
#include "pgm/pgm_python/bridge_values.h"
#include "pgm/pgm_python/call_road.h"

// The path of a script below the common programmer folder; `format` holds one %s for that folder.
std::string common_script(const char* format);

// One call, used for one run.
class BRIDGE_CALL {
public:
    // `script` is the script's path, `function` the name of the function to call.
    BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function);

    // The script's command line after its own path; empty unless set.
    void set_script_arguments(std::vector<std::string> arguments);

    // Announces an argument tuple, with the check that it was made. Without it the function is
    // called without one.
    void expect_tuple(const CHECK& made);

    // Adds the tuple's next item, with the checks that it was made (none for the singletons) and
    // that the tuple took it.
    void add_argument(const ARGUMENT& argument, const CHECK& made, const CHECK& placed);

    // Makes the call. Everything that can go wrong has been reported on return.
    ANSWER run(const ANSWER_FORM& form);

    // The same for an answer without checks.
    ANSWER run(ANSWER_FORM::KIND kind) { return run(answer_of(kind)); }

private:
    void check_script() const;

    CALL_REQUEST m_request;
};

#endif
