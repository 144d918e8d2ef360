#include "bench/rounds.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>

#include "bench/contestant.h"

namespace {

class REPORTER : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            times[run.run_name.function_name].push_back(run.real_accumulated_time /
                                                        static_cast<double>(run.iterations));
        }
    }

    TIMES times;
};

void set_up_once() {
    static const bool done = [] {
        std::string arguments[] = {"bench", "--benchmark_enable_random_interleaving=true"};
        char* pointers[] = {&arguments[0][0], &arguments[1][0], nullptr};
        int count = 2;
        benchmark::Initialize(&count, pointers);
        return true;
    }();
    static_cast<void>(done);
}

double processor_time(int whose) {
    rusage usage;
    ::getrusage(whose, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

double now(CLOCK clock) {
    if (clock == CLOCK::processor) {
        return processor_time(RUSAGE_SELF) + processor_time(RUSAGE_CHILDREN);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

TIMES time_in_rounds(const std::vector<TIMED>& group, int rounds, CLOCK clock) {
    set_up_once();
    benchmark::ClearRegisteredBenchmarks();
    for (const TIMED& timed : group) {
        // One iteration makes all runs, so that the clock is not read in between.
        benchmark::RegisterBenchmark(
            timed.name.c_str(),
            [&timed, clock](benchmark::State& state) {
                for (auto unused : state) {
                    static_cast<void>(unused);
                    const double before = now(clock);
                    for (int run = 0; run < timed.runs; ++run) {
                        timed.function();
                    }
                    state.SetIterationTime((now(clock) - before) / timed.runs);
                }
            })
            ->Iterations(1)
            ->UseManualTime();
    }
    REPORTER reporter;
    for (int round = 0; round < rounds; ++round) {
        if (benchmark::RunSpecifiedBenchmarks(&reporter, "all") != group.size()) {
            stop("a benchmark did not run");
        }
    }
    return reporter.times;
}

std::vector<double> ratios(const std::vector<double>& first, const std::vector<double>& second) {
    std::vector<double> result;
    for (std::size_t round = 0; round < first.size() && round < second.size(); ++round) {
        result.push_back(first[round] / second[round]);
    }
    return result;
}
