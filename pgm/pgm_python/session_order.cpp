#include "pgm/pgm_python/session_order.h"

#include <utility>

#include "pgm/pgm_common/environment.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/session_order_source.h"
#include "zel/zel_py/zel_py.h"

namespace {

// The checks of the order's own steps.
constexpr CHECK order_made = {"order != nullptr", 2012};
constexpr CHECK order_begun = {"order.begin()", 2013};

void require_or_print(bool condition, const CHECK& check) {
    if (!condition) {
        if (PyErr_Occurred() != nullptr) {
            py_print_error();
        }
        fail(check);
    }
}

// The names that session_order.py makes; null with an exception pending when that fails. Compiling
// and running it takes longer than a session, so that it is done once in an interpreter.
PY_REFERENCE order_names() {
    static constexpr char own_name[] = "pgm_python.session_order";
    PyObject* const store = py_interpreter_store();
    if (PyObject* const made = store == nullptr ? nullptr : PyDict_GetItemString(store, own_name)) {
        return PY_REFERENCE::borrowed(made);
    }
    const PY_REFERENCE code = PY_REFERENCE::owned(
        Py_CompileString(session_order_source, "session_order.py", Py_file_input));
    PY_REFERENCE names = PY_REFERENCE::owned(code ? PyDict_New() : nullptr);
    const PY_REFERENCE builtins =
        PY_REFERENCE::owned(names ? PyDict_Copy(PyEval_GetBuiltins()) : nullptr);
    const PY_REFERENCE name =
        PY_REFERENCE::owned(builtins ? PyUnicode_FromString(own_name) : nullptr);
    if (!name || PyDict_SetItemString(names.get(), "__builtins__", builtins.get()) != 0 ||
        PyDict_SetItemString(names.get(), "__name__", name.get()) != 0) {
        return PY_REFERENCE();
    }
    const PY_REFERENCE ran =
        PY_REFERENCE::owned(PyEval_EvalCode(code.get(), names.get(), names.get()));
    if (!ran || (store != nullptr && PyDict_SetItemString(store, own_name, names.get()) != 0)) {
        return PY_REFERENCE();
    }
    return names;
}

bool same_lists(PyObject* list, PyObject* other) {
    const Py_ssize_t size = PyList_GET_SIZE(list);
    bool same = PyList_GET_SIZE(other) == size;
    for (Py_ssize_t index = 0; same && index < size; ++index) {
        same = PyList_GET_ITEM(list, index) == PyList_GET_ITEM(other, index);
    }
    return same;
}

// Equal names that are two objects count as different.
bool same_dictionaries(PyObject* dictionary, PyObject* other) {
    bool same = PyDict_Size(dictionary) == PyDict_Size(other);
    Py_ssize_t at = 0;
    Py_ssize_t other_at = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    PyObject* other_name = nullptr;
    PyObject* other_value = nullptr;
    while (same && PyDict_Next(dictionary, &at, &name, &value) != 0) {
        same = PyDict_Next(other, &other_at, &other_name, &other_value) != 0 &&
               name == other_name && value == other_value;
    }
    return same;
}

// same_objects(one, other): whether two lists or two dictionaries hold the same objects in one
// order. It runs no code of a script. Python's own ways take ten times as long, and this is most of
// what a session's end looks at.
PyObject* same_objects(PyObject* /*self*/, PyObject* arguments) {
    PyObject* one = nullptr;
    PyObject* other = nullptr;
    if (PyArg_ParseTuple(arguments, "OO", &one, &other) == 0) {
        return nullptr;
    }
    bool same = false;
    if (PyList_Check(one) && PyList_Check(other)) {
        same = same_lists(one, other);
    } else if (PyDict_Check(one) && PyDict_Check(other)) {
        same = same_dictionaries(one, other);
    }
    return PyBool_FromLong(same ? 1 : 0);
}

// Held by orders only, which go before this library can be unloaded.
PyMethodDef same_objects_definition = {"same_objects", same_objects, METH_VARARGS, nullptr};

// A new object of the class ORDER; null with an exception pending when that fails.
PY_REFERENCE make_order(bool kept) {
    const PY_REFERENCE names = order_names();
    PyObject* const order = names ? PyDict_GetItemString(names.get(), "ORDER") : nullptr;
    const PY_REFERENCE compare = PY_REFERENCE::owned(
        order == nullptr ? nullptr : PyCFunction_New(&same_objects_definition, nullptr));
    return PY_REFERENCE::owned(
        compare ? PyObject_CallFunction(order, "iO", kept ? 1 : 0, compare.get()) : nullptr);
}

// A list of bytes; null with an exception pending when that fails.
PY_REFERENCE list_of_bytes(const std::vector<std::string>& entries) {
    PY_REFERENCE list = PY_REFERENCE::owned(PyList_New(0));
    for (const std::string& entry : entries) {
        const PY_REFERENCE bytes = PY_REFERENCE::owned(
            list ? PyBytes_FromStringAndSize(entry.data(), static_cast<Py_ssize_t>(entry.size()))
                 : nullptr);
        if (!bytes || PyList_Append(list.get(), bytes.get()) != 0) {
            return PY_REFERENCE();
        }
    }
    return list;
}

// The pending exception as text; nothing is pending afterwards.
std::string taken_error() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    const PY_REFERENCE own_type = PY_REFERENCE::owned(type);
    const PY_REFERENCE own_value = PY_REFERENCE::owned(value);
    const PY_REFERENCE own_traceback = PY_REFERENCE::owned(traceback);
    const PY_REFERENCE text =
        PY_REFERENCE::owned(own_value ? PyObject_Repr(own_value.get()) : nullptr);
    const char* const utf8 = text ? PyUnicode_AsUTF8(text.get()) : nullptr;
    PyErr_Clear();
    return utf8 == nullptr ? "an exception without a text" : utf8;
}

}  // namespace

SESSION_ORDER::SESSION_ORDER(INTERPRETER interpreter)
    : m_order(make_order(interpreter == INTERPRETER::kept)) {
    require_or_print(static_cast<bool>(m_order), order_made);
}

void SESSION_ORDER::begin() {
    m_context = PY_REFERENCE::owned(PyContext_New());
    require_or_print(m_context && PyContext_Enter(m_context.get()) == 0, order_begun);
    if (!look_at_environment() || !call("begin", m_environment.get())) {
        py_print_error();
        PyContext_Exit(m_context.get());
        m_context.reset();
        fail(order_begun);
    }
}

void SESSION_ORDER::search_path_is_set() {
    if (!call("search_path_is_set")) {
        PyErr_Clear();  // a folder that cannot be looked through hides nothing
    }
}

std::vector<std::string> SESSION_ORDER::end() noexcept {
    std::vector<std::string> failures;
    PyErr_Clear();
    if (!call("end")) {
        failures.push_back(taken_error());
    }
    // What the session's context variables hold is collected with the rest.
    if (m_context) {
        if (PyContext_Exit(m_context.get()) != 0) {
            failures.push_back(taken_error());
        }
        m_context.reset();
    }
    const PY_REFERENCE ended = call("end_objects");
    if (!ended) {
        failures.push_back(taken_error());
    }
    for (Py_ssize_t index = 0; ended && index < PyList_GET_SIZE(ended.get()); ++index) {
        const char* const text = PyUnicode_AsUTF8(PyList_GET_ITEM(ended.get(), index));
        PyErr_Clear();
        failures.emplace_back(text == nullptr ? "a step without a text" : text);
    }
    if (!look_at_environment() || !call("put_back_environment", m_environment.get())) {
        failures.push_back(taken_error());
    }
    return failures;
}

bool SESSION_ORDER::look_at_environment() {
    std::vector<std::string> entries = environment_entries();
    if (!m_environment || entries != m_entries) {
        m_environment = list_of_bytes(entries);
        m_entries = std::move(entries);
    }
    return static_cast<bool>(m_environment);
}

PY_REFERENCE SESSION_ORDER::call(const char* method, PyObject* argument) const {
    const PY_REFERENCE function =
        PY_REFERENCE::owned(PyObject_GetAttrString(m_order.get(), method));
    return PY_REFERENCE::owned(
        function ? PyObject_CallFunctionObjArgs(function.get(), argument, nullptr) : nullptr);
}
