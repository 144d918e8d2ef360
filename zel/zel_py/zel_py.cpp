#include "zel/zel_py/zel_py.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "zel/zel_msg/zel_msg.h"
#include "zel/zel_py/py_platform.h"
#include "zel/zel_py/py_reference.h"

namespace {

// The session in force. The library never runs two at once.
struct SESSION {
    bool owns_interpreter = false;
    // Whether the lock was taken by PyGILState_Ensure; else the start of the interpreter took it.
    bool locked = false;
    PyGILState_STATE lock = PyGILState_UNLOCKED;
    std::string locale;  // the process's, with all its categories
};
SESSION session;

// The interpreter that py_initialize has started. It is kept without a session while `suspended`.
struct INTERPRETER {
    bool suspended = false;
    std::string character_locale;  // as its start has set it
};
INTERPRETER& interpreter() {
    // Never destroyed: sessions may run while the process ends.
    static INTERPRETER& the_interpreter = *new INTERPRETER;
    return the_interpreter;
}

// The number of the check in reports.
constexpr int start_check_line = 61;

[[noreturn]] void cannot_start(const char* reason) {
    MSG_INTERNAL_ERROR::report_varg("ZEL_PY", "zel/zel_py/zel_py", start_check_line,
                                    "Python interpreter cannot be started: %s", reason);
    std::abort();
}

#if PY_VERSION_HEX >= 0x03080000

void require(const PyStatus& status) {
    if (PyStatus_Exception(status) != 0) {
        cannot_start(status.err_msg == nullptr ? "no reason" : status.err_msg);
    }
}

struct CONFIGURATION {
    PyConfig config = {};
    CONFIGURATION() { PyConfig_InitPythonConfig(&config); }
    ~CONFIGURATION() { PyConfig_Clear(&config); }
    CONFIGURATION(const CONFIGURATION&) = delete;
    CONFIGURATION& operator=(const CONFIGURATION&) = delete;
};

void start_interpreter() {
    PyPreConfig before;
    PyPreConfig_InitPythonConfig(&before);
    before.parse_argv = 0;
    before.coerce_c_locale = 0;  // the environment is the host's
    require(Py_PreInitialize(&before));

    CONFIGURATION configuration;
    PyConfig& config = configuration.config;
    config.parse_argv = 0;
    config.install_signal_handlers = 0;
    config.configure_c_stdio = 0;  // the standard streams' buffers are the host's
#if defined(ZEL_PY_PROGRAM)
    // With the interpreter's own name the search for the standard library starts beside it,
    // whatever "python3" the host's PATH leads to.
    if (std::FILE* const program = std::fopen(ZEL_PY_PROGRAM, "rb")) {
        std::fclose(program);
        require(PyConfig_SetBytesString(&config, &config.program_name, ZEL_PY_PROGRAM));
    }
#endif
    require(Py_InitializeFromConfig(&config));
}

#else

void start_interpreter() {
#if defined(ZEL_PY_PROGRAM)
    if (std::FILE* const program = std::fopen(ZEL_PY_PROGRAM, "rb")) {
        std::fclose(program);
        static wchar_t* const name = Py_DecodeLocale(ZEL_PY_PROGRAM, nullptr);
        if (name != nullptr) {
            Py_SetProgramName(name);
        }
    }
#endif
    Py_InitializeEx(0);
}

#endif

std::string locale_of(int category) {
    const char* const locale = std::setlocale(category, nullptr);
    return locale == nullptr ? std::string() : std::string(locale);
}

// What a session may change in the process beside the interpreter.
void note_process_state() {
    session.locale = locale_of(LC_ALL);
    py_platform::note_signal_handlers();
}

void restore_process_state() {
    py_platform::restore_signal_handlers();
    if (!session.locale.empty()) {
        std::setlocale(LC_ALL, session.locale.c_str());
    }
}

#if PY_VERSION_HEX < 0x03090000

// Before Python 3.9 the garbage collector outlives the interpreter, and what a session leaves
// behind is looked through by every later one. gc.freeze takes it out of the collector's sight;
// called when the interpreter is gone, it meets nothing else. It needs no interpreter then, but has
// to be found while there is one.
class LEFT_OVER_OBJECTS {
public:
    LEFT_OVER_OBJECTS() {
        static unsigned int sessions = 0;
        if (++sessions % sessions_to_a_freeze != 0) {
            return;
        }
        const PY_REFERENCE collector = PY_REFERENCE::owned(PyImport_ImportModule("gc"));
        const PY_REFERENCE function = PY_REFERENCE::owned(
            collector ? PyObject_GetAttrString(collector.get(), "freeze") : nullptr);
        if (function && PyCFunction_Check(function.get()) != 0) {
            m_freeze = PyCFunction_GetFunction(function.get());
        }
        PyErr_Clear();
    }

    void freeze() const {
        if (m_freeze != nullptr) {
            Py_XDECREF(m_freeze(nullptr, nullptr));  // None, which outlives interpreters
        }
    }

private:
    // Most of what a session leaves behind is freed by the next one's collector, and lost after a
    // freeze. So that is done seldom.
    static constexpr unsigned int sessions_to_a_freeze = 64;

    PyCFunction m_freeze = nullptr;
};

#else

class LEFT_OVER_OBJECTS {
public:
    void freeze() const {}
};

#endif

// The three parts of the pending exception, taken out of the interpreter and put in order.
struct PENDING_ERROR {
    PY_REFERENCE type;
    PY_REFERENCE value;
    PY_REFERENCE traceback;

    PENDING_ERROR() {
        PyObject* raw_type = nullptr;
        PyObject* raw_value = nullptr;
        PyObject* raw_traceback = nullptr;
        PyErr_Fetch(&raw_type, &raw_value, &raw_traceback);
        PyErr_NormalizeException(&raw_type, &raw_value, &raw_traceback);
        if (raw_traceback != nullptr && raw_value != nullptr) {
            PyException_SetTraceback(raw_value, raw_traceback);
        }
        type = PY_REFERENCE::owned(raw_type);
        value = PY_REFERENCE::owned(raw_value);
        traceback = PY_REFERENCE::owned(raw_traceback);
    }

    void display() const { PyErr_Display(type.get(), value.get(), traceback.get()); }

    // Lets a debugger find the exception afterwards.
    void set_last() const {
        const auto set = [](const char* name, const PY_REFERENCE& part) {
            if (PySys_SetObject(name, part ? part.get() : Py_None) != 0) {
                PyErr_Clear();
            }
        };
#if PY_VERSION_HEX >= 0x030C0000
        set("last_exc", value);
#endif
        set("last_type", type);
        set("last_value", value);
        set("last_traceback", traceback);
    }

    // What PyErr_Print does with sys.excepthook, but for one that exits: it has failed like any
    // other.
    void show_by_hook() const {
        PyObject* const trace = traceback ? traceback.get() : Py_None;
        PyObject* const exception = value ? value.get() : Py_None;
        const PY_REFERENCE hook = PY_REFERENCE::borrowed(PySys_GetObject("excepthook"));
#if PY_VERSION_HEX >= 0x03080000
        if (PySys_Audit("sys.excepthook", "OOOO", hook ? hook.get() : Py_None, type.get(),
                        exception, trace) < 0) {
            if (PyErr_ExceptionMatches(PyExc_RuntimeError) != 0) {
                PyErr_Clear();
                return;
            }
            PyErr_WriteUnraisable(nullptr);
        }
#endif
        if (!hook) {
            PySys_WriteStderr("sys.excepthook is missing\n");
            display();
            return;
        }
        const PY_REFERENCE shown = PY_REFERENCE::owned(
            PyObject_CallFunctionObjArgs(hook.get(), type.get(), exception, trace, nullptr));
        if (!shown) {
            const PENDING_ERROR of_hook;
            PySys_WriteStderr("Error in sys.excepthook:\n");
            of_hook.display();
            PySys_WriteStderr("\nOriginal exception was:\n");
            display();
        }
    }
};

#if PY_VERSION_HEX >= 0x03080000

// Python waits at its end for its main thread unless that is the calling one: tells it not to. What
// the session made has been waited for when it was suspended.
void release_main_thread() {
    static constexpr char code[] =
        "import sys\n"
        "threading = sys.modules.get('threading')\n"
        "main = getattr(threading, '_main_thread', None)\n"
        "lock = getattr(main, '_tstate_lock', None)\n"
        "if lock is not None and main.ident != threading.get_ident():\n"
        "    if lock.locked():\n"
        "        lock.release()\n"
        "    main._stop()\n";
    const PY_REFERENCE names = PY_REFERENCE::owned(PyDict_New());
    if (names && PyDict_SetItemString(names.get(), "__builtins__", PyEval_GetBuiltins()) == 0) {
        const PY_REFERENCE done =
            PY_REFERENCE::owned(PyRun_String(code, Py_file_input, names.get(), names.get()));
    }
    PyErr_Clear();
}

#else

void release_main_thread() {}

#endif

// A stream of the sys module, null when there is none. Scripts may replace a stream while it is in
// use, so the reference is held for as long as that lasts.
PY_REFERENCE python_stream(const char* name) {
    PyObject* const stream = PySys_GetObject(name);
    return PY_REFERENCE::borrowed(stream == Py_None ? nullptr : stream);
}

void flush_python_stream(const char* name) {
    const PY_REFERENCE stream = python_stream(name);
    if (stream) {
        const PY_REFERENCE flushed =
            PY_REFERENCE::owned(PyObject_CallMethod(stream.get(), "flush", nullptr));
        if (!flushed) {
            PyErr_Clear();
        }
    }
}

// Prints what a main program gave to sys.exit instead of a status, as Python does at its end: a
// text that cannot be made or written leaves an empty line.
void print_exit_text(PyObject* text) {
    if (const PY_REFERENCE stream = python_stream("stderr")) {
        if (PyFile_WriteObject(text, stream.get(), Py_PRINT_RAW) != 0) {
            PyErr_Clear();
        }
    } else {
        PySys_FormatStderr("%S", text);  // without a stream: the C library's
        PyErr_Clear();
    }
    PySys_WriteStderr("\n");
    PyErr_Clear();
}

// Ends a main program that raised the pending exception. True when that was a successful exit.
bool end_main_program() {
    if (PyErr_ExceptionMatches(PyExc_SystemExit) == 0) {
        py_print_error();
        return false;
    }
    PENDING_ERROR exit;
    PY_REFERENCE status = PY_REFERENCE::owned(
        exit.value ? PyObject_GetAttrString(exit.value.get(), "code") : nullptr);
    bool success = false;
    if (!status) {
        PyErr_Clear();
        status = std::move(exit.value);
    }
    if (!status) {
        return false;
    }
    if (status.get() == Py_None) {
        success = true;
    } else if (PyLong_Check(status.get())) {
        success = PyLong_AsLong(status.get()) == 0;
        PyErr_Clear();
    } else {
        flush_python_stream("stdout");
        print_exit_text(status.get());
        flush_python_stream("stderr");
    }
    return success;
}

// The code object of a script file, or null with an exception pending.
PY_REFERENCE load_code(PyObject* loader, PyObject* path, bool compiled) {
    if (compiled) {
        return PY_REFERENCE::owned(PyObject_CallMethod(loader, "get_code", "s", "__main__"));
    }
    const PY_REFERENCE source =
        PY_REFERENCE::owned(PyObject_CallMethod(loader, "get_data", "O", path));
    if (!source) {
        return PY_REFERENCE();
    }
    return PY_REFERENCE::owned(
        PyObject_CallMethod(loader, "source_to_code", "OO", source.get(), path));
}

bool is_compiled(const std::string& file) {
    std::string extension = file.substr(file.size() < 4 ? 0 : file.size() - 4);
    for (char& letter : extension) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return extension == ".pyc";
}

// Runs a script file in the main module; null with an exception pending when it fails.
PY_REFERENCE run_main_file(const char* file) {
    const bool compiled = is_compiled(file);
    const PY_REFERENCE path = PY_REFERENCE::owned(PyUnicode_DecodeFSDefault(file));
    const PY_REFERENCE machinery =
        PY_REFERENCE::owned(path ? PyImport_ImportModule("importlib.machinery") : nullptr);
    const PY_REFERENCE loader = PY_REFERENCE::owned(
        machinery ? PyObject_CallMethod(machinery.get(),
                                        compiled ? "SourcelessFileLoader" : "SourceFileLoader",
                                        "sO", "__main__", path.get())
                  : nullptr);
    const PY_REFERENCE code =
        loader ? load_code(loader.get(), path.get(), compiled) : PY_REFERENCE();
    PyObject* const main_module = code ? PyImport_AddModule("__main__") : nullptr;
    if (main_module == nullptr) {
        return PY_REFERENCE();
    }
    PyObject* const names = PyModule_GetDict(main_module);
    if (PyDict_SetItemString(names, "__file__", path.get()) != 0 ||
        PyDict_SetItemString(names, "__loader__", loader.get()) != 0) {
        return PY_REFERENCE();
    }
    return PY_REFERENCE::owned(PyEval_EvalCode(code.get(), names, names));
}

bool set_script_arguments(int argc, const char** argv) {
    const PY_REFERENCE list = PY_REFERENCE::owned(PyList_New(0));
    for (int index = 0; list && index < argc && argv[index] != nullptr; ++index) {
        const PY_REFERENCE text = PY_REFERENCE::owned(PyUnicode_DecodeFSDefault(argv[index]));
        if (!text || PyList_Append(list.get(), text.get()) != 0) {
            return false;
        }
    }
    return list && PySys_SetObject("argv", list.get()) == 0;
}

// The codes of statements that have been compiled, by their texts: in an interpreter that goes on
// the same ones come in every session. Null, with no exception pending, where they cannot be kept.
PyObject* kept_codes() {
    static constexpr char own_name[] = "zel_py.statements";
    constexpr Py_ssize_t most = 100;
    PyObject* const store = py_interpreter_store();
    PyObject* const found = store == nullptr ? nullptr : PyDict_GetItemString(store, own_name);
    if (found != nullptr && PyDict_Size(found) < most) {
        return found;
    }
    const PY_REFERENCE made = PY_REFERENCE::owned(store == nullptr ? nullptr : PyDict_New());
    const bool is_kept = made && PyDict_SetItemString(store, own_name, made.get()) == 0;
    PyErr_Clear();
    return is_kept ? made.get() : nullptr;
}

PY_REFERENCE compiled(const char* statement) {
    // The text is UTF-8, whatever a coding cookie in it says.
    PyCompilerFlags flags = {};
    flags.cf_flags = PyCF_SOURCE_IS_UTF8 | PyCF_IGNORE_COOKIE;
#if PY_VERSION_HEX >= 0x03080000
    flags.cf_feature_version = PY_MINOR_VERSION;
#endif
    return PY_REFERENCE::owned(
        Py_CompileStringExFlags(statement, "<string>", Py_file_input, &flags, -1));
}

// The code of a statement; null with an exception pending when it has none.
PY_REFERENCE code_of(const char* statement) {
    constexpr std::size_t longest_kept = 1000;
    const PY_REFERENCE text = PY_REFERENCE::owned(
        std::strlen(statement) <= longest_kept ? PyUnicode_FromString(statement) : nullptr);
    PyErr_Clear();  // what is no UTF-8 is told as it is compiled
    PyObject* const codes = text ? kept_codes() : nullptr;
    if (codes == nullptr) {
        return compiled(statement);
    }
    if (PyObject* const code = PyDict_GetItem(codes, text.get())) {
        return PY_REFERENCE::borrowed(code);
    }
    PY_REFERENCE code = compiled(statement);
    if (code && PyDict_SetItem(codes, text.get(), code.get()) != 0) {
        PyErr_Clear();
    }
    return code;
}

// What Python does before it runs a text's code; false with an exception pending.
bool may_be_run(PyObject* code, PyObject* names) {
#if PY_VERSION_HEX >= 0x03080000
    if (PyDict_GetItemString(names, "__builtins__") == nullptr &&
        PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins()) != 0) {
        return false;
    }
    return PySys_Audit("exec", "O", code) == 0;
#else
    static_cast<void>(code);
    static_cast<void>(names);
    return true;
#endif
}

}  // namespace

void py_initialize() {
    session = SESSION();
    if (Py_IsInitialized() != 0) {
        session.lock = PyGILState_Ensure();
        session.locked = true;
        note_process_state();
        return;
    }
    interpreter().suspended = false;  // one that somebody else has ended
    // Python gets over a start that fails half-way in no later one.
    if (!py_platform::home_may_hold_library()) {
        cannot_start("PYTHONHOME leads to no standard library of this version");
    }
    note_process_state();
    try {
        start_interpreter();
    } catch (...) {
        restore_process_state();
        throw;
    }
    session.owns_interpreter = true;
    interpreter().character_locale = locale_of(LC_CTYPE);
    py_platform::ignore_broken_pipes();
}

void py_finalize() {
    PyErr_Clear();
    if (session.owns_interpreter) {
        if (session.locked) {
            release_main_thread();
        }
        const LEFT_OVER_OBJECTS left_over;
        Py_FinalizeEx();
        left_over.freeze();
        session.owns_interpreter = false;
    } else {
        PyGILState_Release(session.lock);
    }
    restore_process_state();
}

bool py_owns_interpreter() {
    return session.owns_interpreter;
}

void py_suspend() {
    PyErr_Clear();
    interpreter().suspended = true;
    session.owns_interpreter = false;
    if (session.locked) {
        PyGILState_Release(session.lock);
    } else {
        PyEval_SaveThread();
    }
    restore_process_state();
}

bool py_resume() {
    if (!interpreter().suspended || Py_IsInitialized() == 0) {
        return false;
    }
    session = SESSION();
    session.lock = PyGILState_Ensure();
    session.locked = true;
    session.owns_interpreter = true;
    interpreter().suspended = false;
    note_process_state();
    std::setlocale(LC_CTYPE, interpreter().character_locale.c_str());
    py_platform::ignore_broken_pipes();
    return true;
}

bool py_eval(const char* statement) {
    PyObject* const main_module = PyImport_AddModule("__main__");
    if (main_module == nullptr) {
        return end_main_program();
    }
    PyObject* const names = PyModule_GetDict(main_module);
    const PY_REFERENCE code = code_of(statement);
    const PY_REFERENCE result = PY_REFERENCE::owned(code && may_be_run(code.get(), names)
                                                        ? PyEval_EvalCode(code.get(), names, names)
                                                        : nullptr);
    return result || end_main_program();
}

bool py_source_with_args(int argc, const char** argv) {
    if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
        return false;
    }
    if (!set_script_arguments(argc, argv)) {
        return end_main_program();
    }
    const PY_REFERENCE result = run_main_file(argv[0]);
    return result || end_main_program();
}

void py_print_error() {
    const PENDING_ERROR error;
    flush_python_stream("stdout");
    // Python writes a traceback in pieces.
    const PY_REFERENCE stream = python_stream("stderr");
    if (PyErr_GivenExceptionMatches(error.type.get(), PyExc_SystemExit) != 0) {
        error.display();
    } else {
        error.set_last();
        error.show_by_hook();
    }
    flush_python_stream("stderr");
}
