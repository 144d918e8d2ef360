// Timing by rounds: in each round every one of a group of functions runs once, in an order that
// chance decides, so that what else happens on the machine meets all alike.
//
// What is timed is wall time, or the processor's time of the process and its children, which other
// work on the machine disturbs less.

#ifndef BENCH_ROUNDS_H
#define BENCH_ROUNDS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

struct TIMED {
    std::string name;
    std::function<void()> function;
    // How many runs are timed together.
    int runs;
};

// Seconds that one run took, round by round, by name.
typedef std::map<std::string, std::vector<double>> TIMES;

enum class CLOCK { wall, processor };

// Seconds that have gone by on a clock.
double now(CLOCK clock);

TIMES time_in_rounds(const std::vector<TIMED>& group, int rounds, CLOCK clock);

// What the first took of what the second took, round by round.
std::vector<double> ratios(const std::vector<double>& first, const std::vector<double>& second);

#endif
