// A call in a worker process, as its host makes it.

#ifndef PGM_PGM_PYTHON_WORKER_CALL_H
#define PGM_PGM_PYTHON_WORKER_CALL_H

#include "pgm/pgm_python/call_road.h"
#include "pgm/pgm_python/script_run.h"

// Has the road walked in a worker process. Everything that can go wrong has been reported on
// return, as walk_road reports it; beyond that one error line tells of a worker that cannot be
// started, that ends in the call, or that takes longer than the settings allow. Throws what a
// receiver throws.
ANSWER walk_road_in_worker(const CALL_REQUEST& request, ROAD_SURROUNDINGS& surroundings);

// The same for a main program (walk_run).
bool walk_run_in_worker(const RUN_REQUEST& request, ROAD_SURROUNDINGS& surroundings);

#endif
