// What a session does to the process beside Python, and undoes afterwards; one file a platform
// implements it.

#ifndef ZEL_ZEL_PY_PY_PLATFORM_H
#define ZEL_ZEL_PY_PY_PLATFORM_H

namespace py_platform {

// Notes how the process handles each signal.
void note_signal_handlers();

// Puts back what is handled otherwise than it was when it was noted.
void restore_signal_handlers();

// Makes writes to closed connections fail instead of ending the process, unless the host handles
// them itself.
void ignore_broken_pipes();

// Whether Python can find a standard library of its version with the PYTHONHOME that is set, if one
// is. Only a certain "no" gives false.
bool home_may_hold_library();

}  // namespace py_platform

#endif
