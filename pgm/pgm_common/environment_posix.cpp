#include <cstdlib>

#include "pgm/pgm_common/environment.h"

std::string environment_value(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}
