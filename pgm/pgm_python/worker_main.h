// The main program of pgm_python_worker, which has nothing of its own.

#ifndef PGM_PGM_PYTHON_WORKER_MAIN_H
#define PGM_PGM_PYTHON_WORKER_MAIN_H

#include "pgm/pgm_python/pgm_python_export.h"

// Serves one call of the host that started this process, and gives the status of the process.
PGM_PYTHON_API int pgm_python_worker_main(int argc, char** argv);

#endif
