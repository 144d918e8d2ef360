// The settings in force: what the host chose, else what the environment says, else the default.
// May be called on any thread.

#ifndef PGM_PGM_PYTHON_SETTINGS_H
#define PGM_PGM_PYTHON_SETTINGS_H

#include <string>

#include "pgm/pgm_python/pgm_python_settings.h"

// What a call goes by, from its beginning to its end.
struct SETTINGS {
    PGM_PYTHON_CALLS calls = PGM_PYTHON_CALLS::fresh;
    double call_timeout = 0;  // seconds; 0 for none
    std::string worker;       // empty: the library's own
    PGM_PYTHON_REASONS reasons = PGM_PYTHON_REASONS::both;
    bool traceback = false;
};

// Reads them. A value of the environment that is none of those listed is an internal error.
SETTINGS settings_in_force();

#endif
