// An owning reference to a Python object. Internal: needs Python.h.
//
// Every reference is made by a function whose name says what it takes:
//
//     PY_REFERENCE name = PY_REFERENCE::owned(PyUnicode_FromString("os"));   // new reference
//     PY_REFERENCE item = PY_REFERENCE::borrowed(PyList_GetItem(list, 0));   // somebody else's
//
// It must be gone before the interpreter is finalised; declare it inside the session's scope.

#ifndef ZEL_ZEL_PY_PY_REFERENCE_H
#define ZEL_ZEL_PY_PY_REFERENCE_H

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

class PY_REFERENCE {
public:
    PY_REFERENCE() = default;

    // Takes over a new reference; null is kept as null.
    static PY_REFERENCE owned(PyObject* object) { return PY_REFERENCE(object); }

    // Takes a reference of its own to an object that somebody else holds; null is kept as null.
    static PY_REFERENCE borrowed(PyObject* object) {
        Py_XINCREF(object);
        return PY_REFERENCE(object);
    }

    PY_REFERENCE(PY_REFERENCE&& other)
    noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    PY_REFERENCE& operator=(PY_REFERENCE&& other) noexcept {
        PyObject* const old = std::exchange(m_object, std::exchange(other.m_object, nullptr));
        Py_XDECREF(old);
        return *this;
    }
    PY_REFERENCE(const PY_REFERENCE&) = delete;
    PY_REFERENCE& operator=(const PY_REFERENCE&) = delete;
    ~PY_REFERENCE() { Py_XDECREF(m_object); }

    PyObject* get() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }

    // Hands the reference to the caller.
    PyObject* release() { return std::exchange(m_object, nullptr); }

    // Drops the reference now.
    void reset() { *this = PY_REFERENCE(); }

private:
    explicit PY_REFERENCE(PyObject* object) : m_object(object) {}

    PyObject* m_object = nullptr;
};

// What is kept in the interpreter in force, by names of its owners and out of scripts' sight: a
// dictionary that goes with it (in Python 3.7 with the thread), borrowed. Null where there is none.
inline PyObject* py_interpreter_store() {
#if PY_VERSION_HEX >= 0x03080000
    return PyInterpreterState_GetDict(PyThreadState_Get()->interp);
#else
    return PyThreadState_GetDict();
#endif
}

#endif
