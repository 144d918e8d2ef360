// The kinds of calls side by side: an interpreter a call, a kept one, a process a call.

#ifndef BENCH_KINDS_H
#define BENCH_KINDS_H

#include "bench/table.h"

// A call of each kind. Whether a worker's call follows the one before at once or when the next
// worker has had time to start makes two columns.
TABLE time_kinds(bool quick);

// Calls a second: from one thread with an interpreter a call, from four threads in workers.
TABLE time_threads(bool quick);

// What a .pth file among the site-packages adds to a call of each kind.
TABLE cost_of_pth_files(bool quick);

#endif
