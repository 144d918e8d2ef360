#include "zel/zel_py/py_platform.h"

namespace py_platform {

// Here a write to a closed connection only fails.
void ignore_broken_pipes() {}

void restore_broken_pipes() {}

// Here Python looks beside itself and into the registry, too.
bool home_may_hold_library() {
    return true;
}

}  // namespace py_platform
