#include "pgm/pgm_python/interpreter_session.h"

#include <cstdlib>
#include <memory>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_py/zel_py.h"

namespace {

// Converts in the process's locale. What cannot be converted leaves zeros.
std::unique_ptr<wchar_t[]> to_wide(const std::string& text) {
    std::unique_ptr<wchar_t[]> wide(new wchar_t[text.size() + 1]());
    std::mbstowcs(wide.get(), text.c_str(), text.size());
    return wide;
}

// Releases an array of wide strings and its slots.
struct WIDE_VECTOR_RELEASE {
    int count;
    void operator()(wchar_t** slots) const {
        for (int index = 0; index < count; ++index) {
            delete[] slots[index];
        }
        delete[] slots;
    }
};

// Runs one statement of the set-up; `format` may hold one %s, filled with `folder` as it is.
void run_statement(const char* format, const std::string& folder, const CHECK& check) {
    const std::string setting = MEM_DETAIL::stl_raw_sprintf(format, folder.c_str());
    require(py_eval(setting.c_str()), check);
}

#if PY_VERSION_HEX >= 0x030B0000

// What PySys_SetArgvEx does without touching sys.path.
void set_interpreter_arguments(int count, wchar_t** arguments) {
    const PY_REFERENCE list = PY_REFERENCE::owned(PyList_New(0));
    for (int index = 0; list && index < count; ++index) {
        const PY_REFERENCE text = PY_REFERENCE::owned(PyUnicode_FromWideChar(arguments[index], -1));
        if (!text || PyList_Append(list.get(), text.get()) != 0) {
            break;
        }
    }
    if (!list || PyErr_Occurred() != nullptr || PySys_SetObject("argv", list.get()) != 0) {
        PyErr_Clear();
    }
}

#else

void set_interpreter_arguments(int count, wchar_t** arguments) {
    PySys_SetArgvEx(count, arguments, 0);
}

#endif

}  // namespace

wchar_t** fill_wide_vector(const std::string& first, const std::vector<std::string>& args,
                           int count) {
    std::unique_ptr<wchar_t*[], WIDE_VECTOR_RELEASE> slots(
        new wchar_t* [static_cast<std::size_t>(count)](), WIDE_VECTOR_RELEASE { count });
    int index = 0;
    int texts = 0;
    const auto store = [&](const std::string& text) {
        ++texts;
        if (index < count) {
            slots[static_cast<std::size_t>(index)] = to_wide(text).release();
            ++index;
        }
    };
    if (!first.empty()) {
        store(first);
    }
    for (const std::string& arg : args) {
        store(arg);
    }
    if (texts != count) {
        report_and_go_on({"index == wcharc", 1705});
    }
    return slots.release();
}

wchar_t** PGM_PYTHON_MGR::convert_char_to_wchar_t(std::string first, std::vector<std::string> args,
                                                  int& count) {
    count = 0;
    for (const std::string& arg : args) {
        if (arg.empty()) {
            report_and_go_on(1680, "Argument at index %d cannot be empty string", count);
            break;
        }
        ++count;
    }
    count = static_cast<int>(args.size()) + (first.empty() ? 0 : 1);
    return count == 0 ? nullptr : fill_wide_vector(first, args, count);
}

void PGM_PYTHON_MGR::delete_wchar_t(int count, wchar_t** wcharv) {
    if (count == 0) {
        require(wcharv == nullptr, {"wcharv == NULL", 1735});
        return;
    }
    for (int index = 0; index < count; ++index) {
        require(wcharv[index] != nullptr, {"wcharv[index] != NULL", 1728});
        delete[] wcharv[index];
        wcharv[index] = nullptr;
    }
    delete[] wcharv;
}

void PGM_PYTHON_MGR::setup_system_path() {
    require(py_eval("import sys"), {"py_eval(\"import sys\")", 1749});
    require(py_eval("import os"), {"py_eval(\"import os\")", 1750});
    // Each goes before the ones above it. The unshipped folder has no place for its "python".
    run_statement("sys.path.insert(0, \"%s/python\")", PGM_COMMON::pgm_get_common_programmer(),
                  {"py_eval(setting.c_str())", 1754});
    run_statement("sys.path.insert(0, \"%s/python/source\")",
                  PGM_COMMON::pgm_get_common_programmer(), {"py_eval(setting.c_str())", 1757});
    run_statement("sys.path.insert(0, \"%s/python/source\")",
                  PGM_COMMON::pgm_get_unshipped_programmer(false),
                  {"py_eval(setting.c_str())", 1760});
    run_statement("os.environ[\"PGM_PYTHON_BIN_DIR\"] = \"%s\"",
                  PGM_COMMON::pgm_get_bin_directory(), {"py_eval(setting.c_str())", 1763});
}

std::string PGM_PYTHON_MGR::setup_system_path(std::string script) {
    require(!script.empty(), {"Python file must be specified", 1779});
    const int extension = PGM_COMMON::match_extension(script, {".py", ".pyc"});
    if (extension == 0) {
        fail(1781, "Python script %s must have extension of .py or .pyc", script);
    }
    FIO_PATH path(script);
    path.become_absolute("");
    script = path.fullpath();
    if (!FIO_FILE_SYSTEM::exists(script)) {
        fail(1785, "Python script %s doest not exist", script);
    }
    require(py_eval("import sys"), {"py_eval(\"import sys\")", 1788});
    run_statement("sys.path.insert(0, \"%s\")", path.full_directory(),
                  {"py_eval(setting.c_str())", 1792});
    script = path.filename();
    script.resize(script.size() - (extension == 1 ? 3 : 4));
    return script;
}

WIDE_ARGUMENT_VECTOR::~WIDE_ARGUMENT_VECTOR() {
    PGM_PYTHON_MGR::delete_wchar_t(m_count, m_arguments);
}

void WIDE_ARGUMENT_VECTOR::set(const std::string& script,
                               const std::vector<std::string>& script_arguments) {
    int count = 0;
    m_arguments = PGM_PYTHON_MGR::convert_char_to_wchar_t(script, script_arguments, count);
    m_count = count;
    set_interpreter_arguments(m_count, m_arguments);
}

INTERPRETER_SESSION::INTERPRETER_SESSION() {
    py_initialize();
}

INTERPRETER_SESSION::~INTERPRETER_SESSION() {
    m_kept.clear();
    py_finalize();
}

void INTERPRETER_SESSION::setup_system_path() {
    PGM_PYTHON_MGR::setup_system_path();
}

std::string INTERPRETER_SESSION::setup_system_path(const std::string& script) {
    return PGM_PYTHON_MGR::setup_system_path(script);
}
