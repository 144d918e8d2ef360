// What the tests of worker processes have in common, and what they ask of the platform.

#ifndef TESTS_WORKER_PROCESSES_H
#define TESTS_WORKER_PROCESSES_H

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support.h"

typedef std::vector<std::string> REPORTS;

// The processes that one worker is.
extern const std::size_t processes_of_a_worker;

// How many handles locks may make that several threads want at once for the first time.
extern const int handles_of_locks;

// What a call says whose script kills its process, and one whose script has it crash.
extern const char end_of_a_killed_process[];
extern const char end_of_a_crashed_process[];

// The living processes that have the entry in the environment of their start, save for this one.
std::vector<int> processes_with(const std::string& entry);

void kill_process(int process);

// Runs `pgm_python_run` with a script, with calls in workers and nothing to write to, and kills it
// after so many milliseconds.
void run_and_kill(const std::string& script, int milliseconds);

// Whether programs without a console get one whose process stays in the folder they started in, as
// Wine's does.
bool consoles_hold_folders();

// A mark in the environment, by which this test's processes are found.
class MARK {
public:
    MARK();

    const std::string& text() const { return m_mark; }

    // The living processes with the mark, save for this one.
    std::vector<int> processes() const { return processes_with(m_mark); }

    // Whether there are no more than so many, or soon are no more.
    bool has_at_most(std::size_t processes) const;
    bool is_gone() const { return has_at_most(0); }

    // Ends those that nothing else ends. One that is about to become another program has no
    // environment for a moment, and what it holds open of this process's would be waited for.
    void end_all() const;

private:
    std::string m_mark;
    ENVIRONMENT_VALUE m_variable;
};

class WorkerProcesses : public testing::Test {
protected:
    WorkerProcesses();
    ~WorkerProcesses() override;

    // The worker that belongs to the library.
    static const std::string worker_program;
    static const char script_source[];

    // Calls a function of the script; "no bytes" when nothing came back.
    std::string call(const char* function, const std::string& data = "data") const;

    const MARK mark;
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/bits.py", script_source);
    RECORDING_RECEIVER receiver;
};

#endif
