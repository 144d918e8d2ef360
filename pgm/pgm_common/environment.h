// The process's environment; one file a platform implements it.

#ifndef PGM_PGM_COMMON_ENVIRONMENT_H
#define PGM_PGM_COMMON_ENVIRONMENT_H

#include <string>
#include <vector>

// The value of an environment variable; empty when it is unset.
std::string environment_value(const char* name);

// All of the environment as "NAME=VALUE", in its order; in UTF-8 on Windows.
std::vector<std::string> environment_entries();

#endif
