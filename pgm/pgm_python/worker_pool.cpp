#include "pgm/pgm_python/worker_pool.h"

#include <chrono>
#include <mutex>
#include <utility>

namespace {

struct WAITING_WORKER {
    std::unique_ptr<WORKER_PROCESS> process;
    std::string program;
    std::string surroundings;

    bool fits(const std::string& wanted_program, const std::string& wanted_surroundings) const {
        return program == wanted_program && surroundings == wanted_surroundings &&
               process->is_waiting();
    }
};

// All under the workers' lock. Plain values, which a thread in a call may use to the very end of
// the process.
WAITING_WORKER* waiting = nullptr;
bool ended = false;

// Until when a thread is taken to be about to start the worker that is to wait. It has a limit for
// the child of a fork, where that thread is not.
typedef std::chrono::steady_clock CLOCK;
constexpr std::chrono::seconds start_limit(1);
CLOCK::time_point preparing_until;

// Puts a worker in the place of the one that waits, which it returns.
std::unique_ptr<WAITING_WORKER> exchange_waiting(std::unique_ptr<WAITING_WORKER> worker) {
    const std::lock_guard<std::mutex> lock(workers_mutex());
    if (ended) {
        return worker;
    }
    return std::unique_ptr<WAITING_WORKER>(std::exchange(waiting, worker.release()));
}

// A thread's turn to start the worker that is to wait: where calls overlap, one does.
class PREPARATION {
public:
    PREPARATION(const std::string& program, const std::string& surroundings) {
        const std::lock_guard<std::mutex> lock(workers_mutex());
        m_is_due = !ended && CLOCK::now() >= preparing_until &&
                   (waiting == nullptr || !waiting->fits(program, surroundings));
        if (m_is_due) {
            preparing_until = CLOCK::now() + start_limit;
        }
    }
    ~PREPARATION() {
        if (m_is_due) {
            const std::lock_guard<std::mutex> lock(workers_mutex());
            preparing_until = CLOCK::time_point();
        }
    }
    PREPARATION(const PREPARATION&) = delete;
    PREPARATION& operator=(const PREPARATION&) = delete;

    bool is_due() const { return m_is_due; }

private:
    bool m_is_due;
};

// Ends the worker that waits when the library goes.
struct END {
    END() = default;
    ~END() {
        const std::unique_ptr<WAITING_WORKER> last = exchange_waiting(nullptr);
        const std::lock_guard<std::mutex> lock(workers_mutex());
        ended = true;
    }
    END(const END&) = delete;
    END& operator=(const END&) = delete;
};
const END end_of_library;

}  // namespace

std::string own_worker_program() {
    const std::string folder = folder_of_library();
    // Beside the library; in the build's tree; in an installation.
    for (const char* const place : {"/", "/../bin/", "/" PGM_PYTHON_WORKER_FOLDER "/"}) {
        std::string program = folder + place + worker_program_name;
        if (is_program(program)) {
            return program;
        }
    }
    return folder + "/" + worker_program_name;
}

TAKEN_WORKER take_worker(const std::string& program, const std::string& surroundings, bool anew) {
    TAKEN_WORKER taken;
    if (!anew) {
        const std::unique_ptr<WAITING_WORKER> worker = exchange_waiting(nullptr);
        if (worker && worker->fits(program, surroundings)) {
            taken.process = std::move(worker->process);
            taken.was_waiting = true;
            return taken;
        }
    }
    taken.process = WORKER_PROCESS::start(program, taken.reason);
    return taken;
}

void prepare_worker(const std::string& program, const std::string& surroundings) {
    const PREPARATION preparation(program, surroundings);
    if (!preparation.is_due()) {
        return;
    }
    std::string reason;
    std::unique_ptr<WORKER_PROCESS> process = WORKER_PROCESS::start(program, reason);
    // Other threads may have changed them since the call began; it may have either.
    if (process && surroundings_of_process() == surroundings) {
        exchange_waiting(std::make_unique<WAITING_WORKER>(
            WAITING_WORKER{std::move(process), program, surroundings}));
    }
}
