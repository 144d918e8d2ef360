// How the command-line tools report: as the library does by default, but an internal error ends the
// call with an exit status instead of aborting the tool.

#ifndef TOOLS_TOOL_MESSAGES_H
#define TOOLS_TOOL_MESSAGES_H

#include <functional>
#include <stdexcept>
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
    // The same without the program's name.
    std::vector<std::string> texts() const;

private:
    std::vector<std::string> m_texts;
    std::vector<const char*> m_values;
};

// A mistake of the user that is found before the library is asked.
class USAGE_ERROR : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Runs a tool's work and returns its status, or the one for what the work threw, which is reported.
// An internal error of the library is such a thing.
int run_tool(const std::function<int()>& work);

// The same for a part of the work, such as one call of several.
int run_guarded(const std::function<int()>& work);

// Reports an error line of the tool's own.
void report_error(const std::string& text);

// Reports bad usage: as it stands, without a line end.
void report_usage(const std::string& text);

// From now on reports are kept instead of printed.
void keep_reports();

// What is printed before each report from now on.
void set_report_prefix(const std::string& prefix);

// Forgets the reports so far: tool_has_reported is false and reports_as_json empty again.
void forget_reports();

// Whether anything was reported since the tool started or the reports were forgotten.
bool tool_has_reported();

// The kept reports as a JSON array of objects: "kind" ("error", "usage", "internal error"), "text",
// and "number" (of a numbered error) or "line" (of an internal error).
std::string reports_as_json();

// "pgm_python 1.0.0" and the Python that is linked, with its place; a line each, without an end.
std::string version_text(const std::string& tool);

#endif
