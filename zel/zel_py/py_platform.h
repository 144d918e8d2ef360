// What a session does to the process beside Python, and undoes afterwards; one file a platform
// implements it.

#ifndef ZEL_ZEL_PY_PY_PLATFORM_H
#define ZEL_ZEL_PY_PY_PLATFORM_H

namespace py_platform {

// Makes writes to closed connections fail instead of ending the process.
void ignore_broken_pipes();

// Puts back what ignore_broken_pipes replaced.
void restore_broken_pipes();

// Whether Python can find a standard library of its version with the PYTHONHOME that is set, if one
// is. Only a certain "no" gives false.
bool home_may_hold_library();

}  // namespace py_platform

#endif
