// What differs between platforms in command-line tools; one file a platform implements it.

#ifndef TOOLS_TOOL_PLATFORM_H
#define TOOLS_TOOL_PLATFORM_H

#include <string>
#include <vector>

namespace tool_platform {

// The texts of the command line as the library wants them, the program's name first.
std::vector<std::string> command_line(int argc, char** argv);

// Sets the locale in which the library converts texts to the user's own or, where the system's
// texts are not in one, to one for UTF-8.
void set_locale();

// Lets bytes pass through the standard output as they are, line ends among them.
void make_standard_output_binary();

}  // namespace tool_platform

#endif
