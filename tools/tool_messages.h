// How the command-line tools report: as the library does by default, but an internal error ends the
// tool with an exit status instead of aborting it.

#ifndef TOOLS_TOOL_MESSAGES_H
#define TOOLS_TOOL_MESSAGES_H

#include <functional>
#include <string>
#include <vector>

// Exit statuses of the tools.
enum TOOL_STATUS : int {
    TOOL_SUCCESS = 0,
    TOOL_FAILURE = 1,
    TOOL_BAD_USAGE = 2,
    TOOL_INTERNAL_ERROR = 3,
};

// A tool's command line in UTF-8, in the form in which main gets it.
class TOOL_ARGUMENTS {
public:
    TOOL_ARGUMENTS(int argc, char** argv);

    int count() const { return static_cast<int>(m_texts.size()); }
    // The program's name first, a null pointer last.
    const char** values() { return m_values.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<const char*> m_values;
};

// Runs a tool's work and returns its status, or the one for an internal error when the work
// reports one.
int run_tool(const std::function<int()>& work);

// Whether an error line or a numbered error was reported since the tool started.
bool tool_has_reported();

#endif
