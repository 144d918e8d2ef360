// Plain values as Python objects, and Python objects as plain values. Internal: needs Python.h, and
// a session.

#ifndef PGM_PGM_PYTHON_PYTHON_VALUES_H
#define PGM_PGM_PYTHON_PYTHON_VALUES_H

#include <cstddef>
#include <functional>

#include "pgm/pgm_python/bridge_values.h"
#include "pgm/pgm_python/interpreter_session.h"
#include "zel/zel_py/py_reference.h"

// Makes the object of an argument: a new reference, save for a flag, whose object is somebody
// else's. Null is a failure; an object with a Python error pending fails the call. The keys and
// values of a map are kept alive until the session ends.
PyObject* make_object(const ARGUMENT& argument, INTERPRETER_SESSION& session);

// Takes bytes of an answer, which are the script's until it returns; but for secrets.
typedef std::function<OWNED_BYTES(const unsigned char* bytes, std::size_t size)> TAKE_BYTES;

// Takes what the form asks for out of a function's result, which stays the caller's, and out of the
// bytearray that was to be filled in, null where there was none. False makes the call a failed one.
bool take_answer(const ANSWER_FORM& form, PyObject* result, PyObject* filled_in,
                 const TAKE_BYTES& take_bytes, ANSWER& answer);

// The number of an int that a signed 32-bit number holds, as 0 to 0xFFFFFFFF; else 0xFFFFFFFF.
unsigned long number_of_int(PyObject* object);

// Overwrites the bytes of a bytearray with zeros.
void overwrite_bytearray(PyObject* object);

#endif
