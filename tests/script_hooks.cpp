#include "tests/script_hooks.h"

#include <cstring>

#include "pgm/pgm_python/pgm_python_settings.h"
#include "zel/zel_py/py_reference.h"

std::function<void()> on_script_signal;

namespace {

constexpr char module_name[] = "test_hooks";

PyObject* signal_host(PyObject* /*module*/, PyObject* /*no_arguments*/) {
    if (on_script_signal) {
        on_script_signal();
    }
    Py_INCREF(Py_None);
    return Py_None;
}

PyObject* unfinished(PyObject* /*module*/, PyObject* items) {
    const Py_ssize_t count = PyList_Size(items);
    PyObject* const list = count < 0 ? nullptr : PyList_New(count);
    for (Py_ssize_t index = 0; list != nullptr && index < count; ++index) {
        PyObject* const item = PyList_GetItem(items, index);
        if (item != Py_None) {
            Py_INCREF(item);
            PyList_SetItem(list, index, item);
        }
    }
    return list;
}

PyMethodDef functions[] = {{"signal", signal_host, METH_NOARGS, nullptr},
                           {"unfinished", unfinished, METH_O, nullptr},
                           {nullptr, nullptr, 0, nullptr}};
PyModuleDef_Slot slots[] = {{0, nullptr}};
PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, module_name, nullptr, 0, functions, slots, nullptr, nullptr, nullptr};

PyObject* initialise() {
    return PyModuleDef_Init(&definition);
}

}  // namespace

void offer_script_hooks() {
    // Modules are offered to interpreters that start afterwards.
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    // Some versions forget the table as they are finalised.
    for (const _inittab* row = PyImport_Inittab; row->name != nullptr; ++row) {
        if (std::strcmp(row->name, module_name) == 0) {
            return;
        }
    }
    PyImport_AppendInittab(module_name, initialise);
}
