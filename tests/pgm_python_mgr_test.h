// The private operations of PGM_PYTHON_MGR, for their tests.

#ifndef TESTS_PGM_PYTHON_MGR_TEST_H
#define TESTS_PGM_PYTHON_MGR_TEST_H

#include <string>
#include <utility>
#include <vector>

#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"

struct PGM_PYTHON_MGR_TEST {
    static wchar_t** convert_char_to_wchar_t(std::string first, std::vector<std::string> args,
                                             int& count) {
        return PGM_PYTHON_MGR::convert_char_to_wchar_t(std::move(first), std::move(args), count);
    }
    static void delete_wchar_t(int count, wchar_t** wcharv) {
        PGM_PYTHON_MGR::delete_wchar_t(count, wcharv);
    }
    static void setup_system_path() { PGM_PYTHON_MGR::setup_system_path(); }
    static std::string setup_system_path(std::string script) {
        return PGM_PYTHON_MGR::setup_system_path(std::move(script));
    }
    static std::string find_default_script(std::string original_file) {
        return PGM_PYTHON_MGR::find_default_script(std::move(original_file));
    }
    static void print_python_error() { PGM_PYTHON_MGR::print_python_error(); }
};

#endif
