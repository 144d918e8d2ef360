#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <cstddef>
#include <string>
#include <vector>

struct OUTCOME {
    int status = -1;
    std::string output;
};

// Runs a program with its arguments (the program first), gives it `size` bytes on standard input,
// and returns its exit status and what it wrote to standard output.
OUTCOME run_process(std::vector<std::string> arguments, const void* input = nullptr,
                    std::size_t size = 0);

#endif
