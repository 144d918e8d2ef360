#include <unistd.h>

#include <cstdlib>

#include "pgm/pgm_common/environment.h"

std::string environment_value(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

std::vector<std::string> environment_entries() {
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    return entries;
}
