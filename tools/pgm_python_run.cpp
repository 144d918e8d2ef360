// Runs a default script by its catalogue name, a script file, or ("-c") Python code:
//
//     pgm_python_run norvane_sign --help
//     pgm_python_run path/to/script.py ARGUMENT...
//     pgm_python_run -c "print('code')"

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/tool_messages.h"

int main(int argc, char** argv) {
    return run_tool([&] {
        TOOL_ARGUMENTS arguments(argc, argv);
        return PGM_PYTHON_MGR::run_python_file(arguments.count() - 1, arguments.values() + 1)
                   ? TOOL_SUCCESS
                   : TOOL_FAILURE;
    });
}
