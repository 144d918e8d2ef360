// Two interpreter sessions by nothing but Python's own means, each importing a module: what ends
// this program otherwise than with 0 is Python's own defect.
//
//     bare_sessions MODULE

#include "zel/zel_py/py_reference.h"

int main(int argc, char** argv) {
    bool imported = argc == 2;
    for (int session = 0; session < 2 && imported; ++session) {
        Py_InitializeEx(0);
        PyObject* const module = PyImport_ImportModule(argv[1]);
        imported = module != nullptr;
        Py_XDECREF(module);
        PyErr_Clear();
        imported = Py_FinalizeEx() == 0 && imported;
    }
    return imported ? 0 : 1;
}
