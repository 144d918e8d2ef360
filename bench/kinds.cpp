#include "bench/kinds.h"

#include <patchlevel.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "bench/contestant.h"
#include "bench/rounds.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"

namespace {

// A kind, and how its calls follow one another.
struct PACE {
    PGM_PYTHON_CALLS kind;
    bool rested;  // each call follows after a while, and finds its worker started
};

constexpr PACE fresh = {PGM_PYTHON_CALLS::fresh, false};
constexpr PACE kept = {PGM_PYTHON_CALLS::kept, false};
constexpr PACE worker = {PGM_PYTHON_CALLS::worker, false};
constexpr PACE fresh_rested = {PGM_PYTHON_CALLS::fresh, true};
constexpr PACE worker_rested = {PGM_PYTHON_CALLS::worker, true};
constexpr PACE paces[] = {fresh, kept, worker, fresh_rested, worker_rested};

// The settings in force again at the end of the scope.
struct SETTINGS_AGAIN {
    SETTINGS_AGAIN() = default;
    ~SETTINGS_AGAIN() { PGM_PYTHON_SETTINGS::use_environment(); }
    SETTINGS_AGAIN(const SETTINGS_AGAIN&) = delete;
    SETTINGS_AGAIN& operator=(const SETTINGS_AGAIN&) = delete;
};

// Seconds that a call takes: the median of `calls`, after one that is not counted.
double time_of(const PACE& pace, int calls, const std::function<void()>& call) {
    PGM_PYTHON_SETTINGS::set_calls(pace.kind);
    call();
    std::vector<double> times;
    for (int index = 0; index < calls; ++index) {
        if (pace.rested) {
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        const double before = now(CLOCK::wall);
        call();
        times.push_back(now(CLOCK::wall) - before);
    }
    return median(times);
}

// The order of a round, which chance decides.
std::vector<std::size_t> order_of(std::size_t count) {
    static std::mt19937 chance(1);
    std::vector<std::size_t> order(count);
    for (std::size_t index = 0; index < count; ++index) {
        order[index] = index;
    }
    std::shuffle(order.begin(), order.end(), chance);
    return order;
}

std::string milliseconds(const std::vector<double>& seconds, int digits) {
    return fixed(1000 * median(seconds), digits);
}

void query() {
    if (PGM_PYTHON_MGR::query_opn_name("1A2B3C") != 0x1A2B3C) {
        stop("wrong answer of query_opn_name");
    }
}

}  // namespace

TABLE time_kinds(bool quick) {
    const SETTINGS_AGAIN again;
    TABLE table({"kinds of calls", "fresh ms", "kept ms", "ratio", "worker ms", "ratio",
                 "fresh, rested ms", "worker, rested ms", "ratio"});
    struct WORK {
        const char* name;
        std::size_t size;
        int calls;
    };
    const std::unique_ptr<CONTESTANT> library = make_library();
    for (const WORK& work : {WORK{"query_opn_name", 0, 10},
                             WORK{"modify_bitstream, 64 MiB", std::size_t(64) << 20, 3}}) {
        const std::vector<unsigned char> data(work.size, 7);
        const std::function<void()> call =
            work.size == 0 ? std::function<void()>(query) : std::function<void()>([&] {
                if (library->modify_bitstream(data).size != work.size) {
                    stop("wrong answer of modify_bitstream");
                }
            });
        std::vector<std::vector<double>> times(std::size(paces));
        for (int round = 0; round < (quick ? 3 : 11); ++round) {
            for (const std::size_t index : order_of(std::size(paces))) {
                times[index].push_back(time_of(paces[index], work.calls, call));
            }
        }
        const auto ratio = [&](std::size_t index, std::size_t base) {
            return fixed(median(ratios(times[index], times[base])), 3);
        };
        table.add({work.name, milliseconds(times[0], 2), milliseconds(times[1], 2), ratio(1, 0),
                   milliseconds(times[2], 2), ratio(2, 0), milliseconds(times[3], 2),
                   milliseconds(times[4], 2), ratio(4, 3)});
    }
    return table;
}

TABLE time_threads(bool quick) {
    const SETTINGS_AGAIN again;
    TABLE table({"calls a second", "fresh, one thread", "worker, four threads", "ratio"});
    const int calls = quick ? 40 : 200;
    std::vector<double> one;
    std::vector<double> four;
    for (int round = 0; round < (quick ? 3 : 7); ++round) {
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::fresh);
        query();
        double before = now(CLOCK::wall);
        for (int call = 0; call < calls; ++call) {
            query();
        }
        one.push_back(calls / (now(CLOCK::wall) - before));

        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
        query();
        before = now(CLOCK::wall);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([calls] {
                for (int call = 0; call < calls / 4; ++call) {
                    query();
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        four.push_back(calls / (now(CLOCK::wall) - before));
    }
    table.add({"query_opn_name", fixed(median(one), 1), fixed(median(four), 1),
               fixed(median(ratios(four, one)), 3)});
    return table;
}

TABLE cost_of_pth_files(bool quick) {
    const SETTINGS_AGAIN again;
    TABLE table({"what a .pth file costs", "without ms", "with ms", "more ms"});
    const std::filesystem::path base =
        std::filesystem::temp_directory_path() / ("bench_pth_" + std::to_string(::getpid()));
    const std::filesystem::path packages =
        base / "lib" /
        ("python" + std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION)) /
        "site-packages";
    std::filesystem::create_directories(packages);
    struct CONTENT {
        const char* name;
        const char* text;
    };
    for (const CONTENT& content : {CONTENT{"one that adds a folder", "/\n"},
                                   CONTENT{"one that imports typing", "import typing\n"},
                                   CONTENT{"one that imports asyncio", "import asyncio\n"}}) {
        std::ofstream(packages / "costs.pth") << content.text;
        std::vector<double> without;
        std::vector<double> with;
        for (int round = 0; round < (quick ? 5 : 21); ++round) {
            for (const std::size_t index : order_of(2)) {
                ::setenv("PYTHONUSERBASE", index == 0 ? "/nonexistent" : base.c_str(), 1);
                (index == 0 ? without : with).push_back(time_of(fresh, 5, query));
            }
        }
        std::vector<double> more(with.size());
        std::transform(with.begin(), with.end(), without.begin(), more.begin(),
                       [](double one, double other) { return one - other; });
        table.add(
            {content.name, milliseconds(without, 2), milliseconds(with, 2), milliseconds(more, 2)});
    }
    ::unsetenv("PYTHONUSERBASE");
    std::filesystem::remove_all(base);
    return table;
}
