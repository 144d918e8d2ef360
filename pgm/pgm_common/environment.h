// The process's environment; one file a platform implements it.

#ifndef PGM_PGM_COMMON_ENVIRONMENT_H
#define PGM_PGM_COMMON_ENVIRONMENT_H

#include <string>

// The value of an environment variable; empty when it is unset.
std::string environment_value(const char* name);

#endif
