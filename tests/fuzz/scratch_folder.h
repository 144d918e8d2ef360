// A folder of a fuzz target's own.

#ifndef TESTS_FUZZ_SCRATCH_FOLDER_H
#define TESTS_FUZZ_SCRATCH_FOLDER_H

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "tests/fuzz/fuzz_support.h"

// Removed at the end of the process, save after a finding.
class SCRATCH_FOLDER {
public:
    SCRATCH_FOLDER()
        : m_path(std::filesystem::canonical(std::filesystem::temp_directory_path()) /
                 ("fuzz_" + std::to_string(std::random_device()()))) {
        MUST_HOLD(std::filesystem::create_directories(m_path));
    }
    ~SCRATCH_FOLDER() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    SCRATCH_FOLDER(const SCRATCH_FOLDER&) = delete;
    SCRATCH_FOLDER& operator=(const SCRATCH_FOLDER&) = delete;

    std::string path() const { return m_path.string(); }

    // Writes a file, making the folders on the way.
    void write(const std::string& name) const {
        std::filesystem::create_directories((m_path / name).parent_path());
        MUST_HOLD(std::ofstream(m_path / name) << "#");
    }

private:
    std::filesystem::path m_path;
};

#endif
