// How the command-line tools report: as the library does by default, but an internal error ends the
// tool with an exit status instead of aborting it.

#ifndef TOOLS_TOOL_MESSAGES_H
#define TOOLS_TOOL_MESSAGES_H

#include <functional>

// Exit statuses of the tools.
enum TOOL_STATUS : int {
    TOOL_SUCCESS = 0,
    TOOL_FAILURE = 1,
    TOOL_BAD_USAGE = 2,
    TOOL_INTERNAL_ERROR = 3,
};

// Runs a tool's work and returns its status, or the one for an internal error when the work
// reports one.
int run_tool(const std::function<int()>& work);

// Whether an error line or a numbered error was reported since the tool started.
bool tool_has_reported();

#endif
