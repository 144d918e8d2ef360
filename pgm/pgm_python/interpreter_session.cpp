#include "pgm/pgm_python/interpreter_session.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/back_channel.h"
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

// Runs one statement of the set-up; `format` holds one %s within quotes, filled with `folder` as it
// is. A folder that would end the quoted text fails the check, and nothing of it is run.
void run_statement(const char* format, const std::string& folder, const CHECK& check) {
    require(folder.find_first_of("\"\r\n") == std::string::npos, check);
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

std::atomic<bool> session_in_force = false;

// The order of the kept interpreter, while there is one. The objects in it go with the interpreter,
// so that nothing is done as the process ends.
SESSION_ORDER* kept_order = nullptr;

// The order of the interpreter in force, which is kept: made by its first session.
SESSION_ORDER* order_of_kept() {
    if (kept_order == nullptr) {
        kept_order = new SESSION_ORDER(SESSION_ORDER::INTERPRETER::kept);
        // What making it has changed in the process is no script's doing.
        py_suspend();
        py_resume();
    }
    return kept_order;
}

// Ends the kept interpreter, if there is one.
void end_kept() {
    if (py_resume()) {
        delete std::exchange(kept_order, nullptr);
        py_finalize();
    }
}

// Has an interpreter that is about to be finalised put an entry of os.environ back as it is now.
// Functions for the end run in reverse: those that the script registers later still find the entry.
bool withdraws_at_end(PyObject* environment, PyObject* name) {
    const PY_REFERENCE before = PY_REFERENCE::owned(PyObject_GetItem(environment, name));
    PyErr_Clear();  // there was none
    const PY_REFERENCE at_exit = PY_REFERENCE::owned(PyImport_ImportModule("atexit"));
    const PY_REFERENCE put_back =
        PY_REFERENCE::owned(PyObject_GetAttrString(environment, before ? "__setitem__" : "pop"));
    if (!at_exit || !put_back) {
        return false;
    }
    const PY_REFERENCE registered = PY_REFERENCE::owned(PyObject_CallMethod(
        at_exit.get(), "register", "OOO", put_back.get(), name, before ? before.get() : Py_None));
    return static_cast<bool>(registered);
}

// Whether the next session's interpreter runs already.
bool started_ahead = false;

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

SESSION_CLAIM::SESSION_CLAIM() {
    if (session_in_force.exchange(true)) {
        fail({"Python session is in force already", 2011});
    }
}

SESSION_CLAIM::~SESSION_CLAIM() {
    session_in_force = false;
}

INTERPRETER_SESSION::INTERPRETER_SESSION(PGM_PYTHON_CALLS calls) {
    const bool kept = calls == PGM_PYTHON_CALLS::kept;
    if (!kept) {
        end_kept();
    }
    if (!kept || !py_resume()) {
        kept_order = nullptr;  // what it held went with its interpreter
        if (!std::exchange(started_ahead, false)) {
            py_initialize();
        }
    }
    try {
        if (!py_owns_interpreter()) {
            m_own_order = std::make_unique<SESSION_ORDER>(SESSION_ORDER::INTERPRETER::hosts);
            m_order = m_own_order.get();
        } else if (kept) {
            m_order = order_of_kept();
        }
        if (m_order != nullptr) {
            m_order->begin();
        }
    } catch (...) {
        m_own_order.reset();
        delete std::exchange(kept_order, nullptr);
        py_finalize();
        throw;
    }
}

void INTERPRETER_SESSION::start_ahead() {
    py_initialize();
    started_ahead = true;
}

INTERPRETER_SESSION::~INTERPRETER_SESSION() {
    m_kept.clear();
    if (m_order == nullptr) {
        py_finalize();
        return;
    }
    const std::vector<std::string> failures = m_order->end();
    m_own_order.reset();
    if (py_owns_interpreter()) {
        py_suspend();
    } else {
        py_finalize();
    }
    for (const std::string& failure : failures) {
        try {
            PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0,
                                      "Python interpreter cannot be put in order: %s",
                                      failure.c_str());
        } catch (...) {
            return;  // the host's receiver has said enough
        }
    }
}

void INTERPRETER_SESSION::setup_system_path() {
    PGM_PYTHON_MGR::setup_system_path();
    if (m_order != nullptr) {
        m_order->search_path_is_set();
    }
}

std::string INTERPRETER_SESSION::setup_system_path(const std::string& script) {
    std::string module = PGM_PYTHON_MGR::setup_system_path(script);
    if (m_order != nullptr) {
        m_order->search_path_is_set();
    }
    return module;
}

void PGM_PYTHON_SETTINGS::end_kept_interpreter() {
    const SESSION_CLAIM claim;
    end_kept();
}

void INTERPRETER_SESSION::announce_reasons_channel(const std::string& text) {
    if (text.empty()) {
        return;
    }
    const PY_REFERENCE os = PY_REFERENCE::owned(PyImport_ImportModule("os"));
    const PY_REFERENCE environment =
        PY_REFERENCE::owned(os ? PyObject_GetAttrString(os.get(), "environ") : nullptr);
    const PY_REFERENCE name = PY_REFERENCE::owned(PyUnicode_FromString(reasons_channel_variable));
    const PY_REFERENCE channel = PY_REFERENCE::owned(PyUnicode_FromString(text.c_str()));
    if (environment && name && channel &&
        (m_order != nullptr || withdraws_at_end(environment.get(), name.get()))) {
        PyObject_SetItem(environment.get(), name.get(), channel.get());
    }
    PyErr_Clear();
}
