// Runs of the command-line tools, as a user starts them.

#ifndef TESTS_TOOL_RUNS_H
#define TESTS_TOOL_RUNS_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support.h"

inline const std::string build_folder =
    std::filesystem::path(PGM_PYTHON_PROGRAMS).parent_path().string();
inline const std::string example_scripts = build_folder + "/common/programmer/python/";

// The tools as a user starts them: no folder named, UTF-8 output, unless `environment` says else.
inline PROGRAM_RESULT start(const std::string& tool, const std::vector<std::string>& arguments,
                            const std::vector<std::string>& environment) {
    std::vector<std::string> all = {"PGM_COMMON_PROGRAMMER_DIR=", "PGM_UNSHIPPED_PROGRAMMER_DIR=",
                                    "PGM_BIN_DIR=", utf8_output_setting()};
    all.insert(all.end(), environment.begin(), environment.end());
    return run_program(PGM_PYTHON_PROGRAMS "/" + tool, arguments, all);
}

inline PROGRAM_RESULT run(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment = {}) {
    return start("pgm_python_run", arguments, environment);
}

inline PROGRAM_RESULT call(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment = {}) {
    return start("pgm_python_call", arguments, environment);
}

// A run that gave `output`, reported nothing and ended with 0.
inline void expect_success(const PROGRAM_RESULT& result, const std::string& output) {
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.errors, "");
}

// A run that gave no result, reported exactly `errors` and ended with `status`.
inline void expect_failure(const PROGRAM_RESULT& result, int status, const std::string& errors) {
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
}

inline bool starts_with(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

inline bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The reports of a script that raised: its traceback, then the lines.
inline void expect_traceback_and(const std::string& errors, const std::string& lines) {
    EXPECT_TRUE(starts_with(errors, "Traceback (most recent call last):\n")) << errors;
    EXPECT_TRUE(ends_with(errors, lines)) << errors;
}

inline std::string internal_error_line(const std::string& text, int line) {
    return internal_error(text, line) + "\n";
}

// The same of one environment, the installation's.
inline std::vector<std::string> environment_of(const TEST_INSTALLATION& installation) {
    return {"PGM_COMMON_PROGRAMMER_DIR=" + installation.common(),
            "PGM_UNSHIPPED_PROGRAMMER_DIR=" + installation.unshipped()};
}

#endif
