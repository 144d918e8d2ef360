// A host that ends, by all that is run at the end of a program, in the midst of a call on another
// thread. Its status is 0.

#include <chrono>
#include <thread>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"

int main() {
    PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
    std::thread([] {
        const char* argv[] = {"-c", "import time; time.sleep(1000)", nullptr};
        PGM_PYTHON_MGR::run_python_file(2, argv);
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return 0;
}
