// The step that ends a call which had a listener: the listener's end, and the reports of a failure.

#ifndef PGM_PGM_PYTHON_CALL_COMPLETION_H
#define PGM_PGM_PYTHON_CALL_COMPLETION_H

#include <string>

#include "pgm/pgm_python/back_channel.h"

// Ends a call that had a listener. Gives the listener of a failed call up to 500 ms to end by
// itself or to be settled; then terminates it, or waits for its end. Posts, for a failed call, one
// failure message (20354 with `file` when `function` is empty, else 20351) and then each reason
// that the script sent (20353). `thread` is the address of the listener's handle, which is null
// afterwards.
void complete_python_call(bool success, THR_THREAD* thread, PGM_PYTHON_LISTENER_DATA* data,
                          std::string function, std::string file);

// The same for the listener of a BACK_CHANNEL that was started. To be called once.
void complete_python_call(bool success, BACK_CHANNEL& back_channel, const std::string& function,
                          const std::string& file);

#endif
