// The work that is timed.

#ifndef BENCH_ROWS_H
#define BENCH_ROWS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "bench/contestant.h"

struct ROW {
    std::string name;
    // Bytes that go in and come out; 0 where they do not matter.
    std::size_t bytes_in;
    std::size_t bytes_out;
    // How many calls are timed together, and how often.
    int calls;
    int rounds;
    // Does the work once and stops the program when any of the answer is wrong.
    std::function<void(CONTESTANT&)> check;
    // Does the work, and stops the program when the answer is plainly wrong. Holds its own input.
    std::function<void(CONTESTANT&)> work;

    std::size_t bytes() const { return bytes_in + bytes_out; }
};

// All of them, in the order of the table. Inputs are made when a row is first used.
std::vector<ROW> make_rows();

#endif
