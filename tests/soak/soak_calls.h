// The calls of the soak: each operation with each outcome that it can have.

#ifndef TESTS_SOAK_SOAK_CALLS_H
#define TESTS_SOAK_SOAK_CALLS_H

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support.h"

// How a call goes.
enum class OUTCOME {
    succeeds,
    // The script raises, after telling two reasons or none.
    refuses,
    fails_silently,
    has_no_function,
    cannot_be_imported,
    // The function returns a float.
    has_wrong_type,
    // A client connects to the back channel, sends nothing and stays until after the call, which
    // succeeds or raises.
    hangs,
    hangs_and_fails,
};

// A call and what is right for it.
struct SOAK_CALL {
    const char* operation;
    OUTCOME outcome;
    // Makes the call and puts its answer, and what it stored, into a text.
    std::function<std::string()> make;
    std::string answer;
    std::vector<std::string> reports;
    // Standard error holds this; nothing where it is empty.
    std::string written;
};

// The calls, with an installation of their own that is in force while the object lives.
class SOAK_CALLS {
public:
    SOAK_CALLS();

    const std::vector<SOAK_CALL>& all() const { return m_calls; }

    // One of them: first an operation, each as likely as the others, then an outcome. Outcomes
    // that make the library wait for reasons that never come are rarer.
    const SOAK_CALL& choose(std::mt19937& random) const;

    // Makes a call and gives what was wrong with it; empty when nothing was.
    std::string make(const SOAK_CALL& call) const;

    // A session that imports a script, as a module, which costs some versions of Python more than
    // to run its source, and calls nothing.
    void run_bare_session() const;

private:
    struct OPERATION;
    void add(const OPERATION& operation);

    TEST_INSTALLATION m_installation;
    std::vector<SOAK_CALL> m_calls;
    std::vector<const char*> m_operations;
};

#endif
