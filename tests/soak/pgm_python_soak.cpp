// Calls every operation again and again in one process, with outcomes of every kind mixed from a
// seed, and looks at what the process holds meanwhile:
//
//     pgm_python_soak --calls 10000 --seed 1 --report-every 500
//
// Ends with 0 when every call gave the right answer with the right reports and nothing that the
// process holds rises beyond what bare interpreter sessions cost; with 1 otherwise; with 2 after
// bad usage.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "tests/soak/soak_calls.h"
#include "tests/soak/soak_readings.h"

namespace {

using CLOCK = std::chrono::steady_clock;

double seconds_since(CLOCK::time_point start) {
    return std::chrono::duration<double>(CLOCK::now() - start).count();
}

// Bare sessions in each of the two batches, before and after the calls.
int sessions_for(int calls) {
    return std::max(100, calls / 20);
}

HISTORY run_bare_sessions(const SOAK_CALLS& calls, int count) {
    HISTORY history(static_cast<std::size_t>(count));
    for (int session = 0; session < count; ++session) {
        calls.run_bare_session();
        history.add(READING::now());
    }
    return history;
}

// Makes a call and prints what is wrong with it; returns whether all is right.
bool make(const SOAK_CALLS& calls, const SOAK_CALL& call) {
    const std::string complaint = calls.make(call);
    if (!complaint.empty()) {
        std::printf("WRONG: %s\n", complaint.c_str());
    }
    return complaint.empty();
}

// The calls alone, for checkers that make each many times slower and keep memory of their own.
int call_only(int count, unsigned seed) {
    const SOAK_CALLS calls;
    std::mt19937 random(seed);
    int wrong_calls = 0;
    for (int made = 0; made < count; ++made) {
        wrong_calls += make(calls, calls.choose(random)) ? 0 : 1;
    }
    std::printf("%d calls with seed %u, %d of them wrong\n", count, seed, wrong_calls);
    return wrong_calls > 0 ? 1 : 0;
}

int soak(int count, unsigned seed, int report_every) {
    const SOAK_CALLS calls;
    std::mt19937 random(seed);
    int wrong_calls = 0;

    // What comes to stay with the first call of a kind is no trend.
    for (const SOAK_CALL& call : calls.all()) {
        wrong_calls += make(calls, call) ? 0 : 1;
    }
    const int sessions = sessions_for(count);
    run_bare_sessions(calls, sessions / 4);
    const HISTORY sessions_before = run_bare_sessions(calls, sessions);

    std::printf("%s\n", READING::table_head().c_str());
    HISTORY history(static_cast<std::size_t>(count));
    const CLOCK::time_point start = CLOCK::now();
    CLOCK::time_point last_report = start;
    int reported = 0;
    for (int made = 1; made <= count; ++made) {
        wrong_calls += make(calls, calls.choose(random)) ? 0 : 1;
        const READING reading = READING::now();
        history.add(reading);
        if (made % report_every == 0 || made == count) {
            std::printf("%s\n", reading
                                    .table_row(seconds_since(start), made,
                                               (made - reported) / seconds_since(last_report))
                                    .c_str());
            std::fflush(stdout);
            last_report = CLOCK::now();
            reported = made;
        }
    }
    const HISTORY sessions_after = run_bare_sessions(calls, sessions);

    const bool trend = report_trends(history, sessions_before, sessions_after);
    std::printf("%d calls with seed %u, %d of them wrong\n", count, seed, wrong_calls);
    return trend || wrong_calls > 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    int calls = 10000;
    unsigned seed = 1;
    int report_every = 0;
    bool only_calls = false;
    CLI::App app("Calls every operation of pgm_python many times in one process.");
    app.add_option("--calls", calls, "How many calls, of all operations together")
        ->check(CLI::Range(16, 100000000))
        ->capture_default_str();
    app.add_option("--seed", seed, "What the mixture is made from")->capture_default_str();
    app.add_option("--report-every", report_every,
                   "After how many calls a row is printed (a twentieth of all unless given)")
        ->check(CLI::PositiveNumber);
    app.add_flag("--only-calls", only_calls,
                 "Check the calls, not what the process holds; no other sessions are run");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (only_calls) {
        return call_only(calls, seed);
    }
    return soak(calls, seed, report_every > 0 ? report_every : std::max(1, calls / 20));
}
