#include <clocale>

#include "tools/tool_platform.h"

namespace tool_platform {

std::vector<std::string> command_line(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

void set_locale() {
    std::setlocale(LC_ALL, "");
}

void make_standard_output_binary() {}

}  // namespace tool_platform
