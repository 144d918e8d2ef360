// Times the library's calls beside other ways to do the same, in one run, and prints tables.

#include <patchlevel.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "bench/contestant.h"
#include "bench/kinds.h"
#include "bench/process.h"
#include "bench/rounds.h"
#include "bench/rows.h"
#include "bench/table.h"
#include "pgm/pgm_common/hex_text.h"
#include "pgm/pgm_common/pgm_common.h"

void stop(const std::string& reason) {
    std::cerr << "bench: " << reason << '\n';
    std::exit(1);
}

std::string common_folder() {
    return std::getenv("PGM_COMMON_PROGRAMMER_DIR");
}

std::string unshipped_folder() {
    return std::getenv("PGM_UNSHIPPED_PROGRAMMER_DIR");
}

std::string bin_folder() {
    return std::getenv("PGM_BIN_DIR");
}

namespace {

struct OPTIONS {
    std::string markdown;
    std::string filter;
    std::vector<int> later_calls = {1000};
    bool quick = false;
    CLOCK clock = CLOCK::wall;
    // What the program is told by itself.
    std::string contestant;
    std::string peak_of;
    std::string later_of;
    int window = 0;
};

constexpr double mib = 1024 * 1024;
constexpr char program_path[] = "/proc/self/exe";

// Those that can take part, the library first.
std::vector<std::unique_ptr<CONTESTANT>> make_contestants() {
    std::vector<std::unique_ptr<CONTESTANT>> contestants;
    for (const auto make : {make_library, make_hand_written, make_process, make_pybind11}) {
        if (std::unique_ptr<CONTESTANT> contestant = make()) {
            contestants.push_back(std::move(contestant));
        }
    }
    return contestants;
}

// A contestant by its name; null when it cannot take part.
std::unique_ptr<CONTESTANT> make_contestant(const std::string& name) {
    std::unique_ptr<CONTESTANT> named;
    for (std::unique_ptr<CONTESTANT>& contestant : make_contestants()) {
        if (contestant->name() == name) {
            named = std::move(contestant);
        }
    }
    return named;
}

// Makes the benchmarks' installation the one in force, and the interpreter "python3" on PATH.
void set_environment() {
    const std::string installation = BENCH_INSTALLATION;
    const std::string python = BENCH_PYTHON;
    const char* const path = std::getenv("PATH");
    const std::string searched = path == nullptr ? "/usr/bin:/bin" : path;
    ::setenv("PGM_COMMON_PROGRAMMER_DIR", (installation + "/common/programmer").c_str(), 1);
    ::setenv("PGM_UNSHIPPED_PROGRAMMER_DIR", (installation + "/unshipped/programmer").c_str(), 1);
    ::setenv("PGM_BIN_DIR", (installation + "/bin").c_str(), 1);
    ::setenv("PATH", (python.substr(0, python.rfind('/')) + ":" + searched).c_str(), 1);
}

// A flag as the program reads it.
std::string flag(const char* name, bool set) {
    return std::string(name) + (set ? "=true" : "=false");
}

// The program itself in another process, for one figure.
double figure_of_own(std::vector<std::string> arguments) {
    char path[4096];
    const ssize_t length = ::readlink(program_path, path, sizeof path);
    arguments.insert(arguments.begin(), std::string(path, static_cast<std::size_t>(length)));
    const OUTCOME outcome = run_process(std::move(arguments));
    if (outcome.status != 0) {
        stop("the program cannot run itself");
    }
    return std::stod(outcome.output);
}

// Calls

std::string milliseconds(const std::vector<double>& seconds) {
    return seconds.empty() ? "-" : fixed(1000 * median(seconds), 2);
}

std::string ratio_text(const std::vector<double>& values) {
    return values.empty() ? "-" : fixed(median(values), 3);
}

TABLE time_calls(const OPTIONS& options) {
    TABLE table({"call", "library ms", "by hand ms", "ratio", "quartiles", "process ms", "ratio",
                 "pybind11 ms", "ratio"});
    const std::vector<std::unique_ptr<CONTESTANT>> contestants = make_contestants();
    for (const ROW& row : make_rows()) {
        if (row.name.find(options.filter) == std::string::npos) {
            continue;
        }
        std::cerr << row.name << '\n';
        std::vector<TIMED> group;
        for (const auto& contestant : contestants) {
            row.check(*contestant);
            row.work(*contestant);
            group.push_back({contestant->name(), [&] { row.work(*contestant); }, row.calls});
        }
        TIMES times =
            time_in_rounds(group, options.quick ? (row.rounds + 3) / 4 : row.rounds, options.clock);
        const std::vector<double> own = times["library"];
        const std::vector<double> by_hand = ratios(own, times["by hand"]);
        table.add({row.name, milliseconds(own), milliseconds(times["by hand"]), ratio_text(by_hand),
                   fixed(quantile(by_hand, 0.25), 3) + ".." + fixed(quantile(by_hand, 0.75), 3),
                   milliseconds(times["process"]), ratio_text(ratios(own, times["process"])),
                   milliseconds(times["pybind11"]), ratio_text(ratios(own, times["pybind11"]))});
    }
    return table;
}

// Peak memory

double status_value(const char* name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == name) {
            double kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    }
    stop("the system does not tell the memory in use");
}

// How far one call raises the memory in use at its peak.
int print_peak(const OPTIONS& options) {
    const std::unique_ptr<CONTESTANT> contestant = make_contestant(options.contestant);
    for (const ROW& row : make_rows()) {
        if (row.name == options.peak_of) {
            // The input is made, and what later calls use again is there.
            row.work(*make_contestant("process"));
            contestant->query_opn_name("1");
            if (!(std::ofstream("/proc/self/clear_refs") << '5' << std::flush)) {
                stop("the system does not begin a peak anew");
            }
            const double before = status_value("VmRSS:");
            row.work(*contestant);
            std::cout << status_value("VmHWM:") - before << '\n';
            return 0;
        }
    }
    stop("no such call: " + options.peak_of);
}

TABLE measure_peaks(const OPTIONS& options) {
    TABLE table({"peak memory of a call", "bytes MiB", "library MiB", "by hand MiB", "ratio",
                 "pybind11 MiB"});
    const bool with_pybind11 = make_contestant("pybind11") != nullptr;
    for (const ROW& row : make_rows()) {
        if (static_cast<double>(row.bytes()) < mib ||
            row.name.find(options.filter) == std::string::npos) {
            continue;
        }
        std::cerr << "peak memory of " << row.name << '\n';
        const auto peak = [&](const char* contestant) {
            return figure_of_own({"--contestant", contestant, "--peak-of", row.name}) / mib;
        };
        const double own = peak("library");
        const double by_hand = peak("by hand");
        table.add({row.name, fixed(static_cast<double>(row.bytes()) / mib, 0), fixed(own, 1),
                   fixed(by_hand, 1), fixed(own / by_hand, 3),
                   with_pybind11 ? fixed(peak("pybind11"), 1) : "-"});
    }
    return table;
}

// Bytes

// What a byte costs, from what larger input adds to a call.
TABLE cost_of_bytes(const OPTIONS& options) {
    TABLE table({"what more bytes add", "library ms", "by hand ms", "ratio", "GB/s", "of copy"});
    struct STEP {
        const char* small;
        const char* large;
    };
    // Each step and the one after it are of the same operation where the cost is to be linear.
    const STEP steps[] = {
        {"generate_compact_cert, 1 KiB", "generate_compact_cert, 16 MiB"},
        {"modify_bitstream, 1 KiB", "modify_bitstream, 16 MiB"},
        {"modify_bitstream, 16 MiB", "modify_bitstream, 64 MiB"},
        {"get_nwfmt_data, 10,000 chunks of 64 bytes", "get_nwfmt_data, 4 chunks of 16 MiB"},
    };
    const std::vector<ROW> rows = make_rows();
    const auto find = [&](const char* name) {
        for (const ROW& row : rows) {
            if (row.name == name) {
                return &row;
            }
        }
        stop(std::string("no such call: ") + name);
    };
    const std::unique_ptr<CONTESTANT> own = make_library();
    const std::unique_ptr<CONTESTANT> by_hand = make_hand_written();
    for (const STEP& step : steps) {
        const ROW& small = *find(step.small);
        const ROW& large = *find(step.large);
        if (large.name.find(options.filter) == std::string::npos) {
            continue;
        }
        std::cerr << "from " << small.name << " to " << large.name << '\n';
        // As many bytes copied to memory that the process does not have yet.
        const std::size_t more = large.bytes() - small.bytes();
        const std::vector<unsigned char> source(more, 7);
        const auto copy = [&] {
            const std::unique_ptr<unsigned char[]> fresh(new unsigned char[more]);
            std::memcpy(fresh.get(), source.data(), more);
            if (fresh[more / 2] != 7) {
                stop("wrong copy");
            }
        };
        TIMES times = time_in_rounds({{"small", [&] { small.work(*own); }, 1},
                                      {"large", [&] { large.work(*own); }, 1},
                                      {"small by hand", [&] { small.work(*by_hand); }, 1},
                                      {"large by hand", [&] { large.work(*by_hand); }, 1},
                                      {"copy", copy, 1}},
                                     options.quick ? 7 : 31, options.clock);
        const auto added = [&](const char* larger, const char* smaller) {
            std::vector<double> result = times[larger];
            for (std::size_t round = 0; round < result.size(); ++round) {
                result[round] -= times[smaller][round];
            }
            return result;
        };
        const std::vector<double> more_own = added("large", "small");
        const std::vector<double> more_by_hand = added("large by hand", "small by hand");
        table.add({std::string(step.small) + " to " +
                       std::string(step.large).substr(std::string(step.large).rfind(", ") + 2),
                   milliseconds(more_own), milliseconds(more_by_hand),
                   ratio_text(ratios(more_own, more_by_hand)),
                   fixed(static_cast<double>(more) / median(more_own) / 1e9, 2),
                   ratio_text(ratios(more_own, times["copy"]))});
    }
    return table;
}

// Hexadecimal text

TABLE time_hex_text(const OPTIONS& options) {
    TABLE table({"hexadecimal text, GB/s of bytes", "vector unit", "byte by byte", "ratio",
                 "whole text", "memcpy of the text", "vector unit of memcpy"});
    if (std::string("hexadecimal text").find(options.filter) == std::string::npos) {
        return table;
    }
    struct SIZE {
        const char* name;
        std::size_t size;
        int runs;
    };
    for (const SIZE& size :
         {SIZE{"16 KiB", std::size_t(1) << 14, 1000}, SIZE{"1 MiB", std::size_t(1) << 20, 20},
          SIZE{"16 MiB", std::size_t(1) << 24, 1}}) {
        std::cerr << "hexadecimal text of " << size.name << '\n';
        std::vector<unsigned char> bytes(size.size);
        for (std::size_t index = 0; index < bytes.size(); ++index) {
            bytes[index] = static_cast<unsigned char>(index * 181 >> 3);
        }
        std::string digits(2 * size.size, ' ');
        std::string expected(2 * size.size, ' ');
        write_hex_digits(bytes.data(), bytes.size(), &digits[0]);
        write_hex_digits_portably(bytes.data(), bytes.size(), &expected[0]);
        const auto text = [&] {
            return PGM_COMMON::convert_byte_array_to_standard_hex_string(bytes.data(), bytes.size(),
                                                                         true, false);
        };
        if (digits != expected || text() != expected || digits.compare(2, 2, "16") != 0) {
            stop("wrong hexadecimal text");
        }
        const auto check_end = [&](const char* end) {
            if (std::memcmp(end - 2, &expected[expected.size() - 2], 2) != 0) {
                stop("wrong hexadecimal text");
            }
        };
        TIMES times =
            time_in_rounds({{"vector unit",
                             [&] {
                                 write_hex_digits(bytes.data(), bytes.size(), &digits[0]);
                                 check_end(digits.data() + digits.size());
                             },
                             size.runs},
                            {"byte by byte",
                             [&] {
                                 write_hex_digits_portably(bytes.data(), bytes.size(), &digits[0]);
                                 check_end(digits.data() + digits.size());
                             },
                             size.runs},
                            {"whole text",
                             [&] {
                                 const std::string whole = text();
                                 check_end(whole.data() + whole.size());
                             },
                             size.runs},
                            {"memcpy",
                             [&] {
                                 std::memcpy(&digits[0], expected.data(), expected.size());
                                 check_end(digits.data() + digits.size());
                             },
                             size.runs}},
                           options.quick ? 11 : 41, options.clock);
        const auto speed = [&](const char* name) {
            return fixed(static_cast<double>(size.size) / median(times[name]) / 1e9, 2);
        };
        table.add({size.name, speed("vector unit"), speed("byte by byte"),
                   ratio_text(ratios(times["vector unit"], times["byte by byte"])),
                   speed("whole text"), speed("memcpy"),
                   ratio_text(ratios(times["vector unit"], times["memcpy"]))});
    }
    return table;
}

// Later calls

constexpr int window_begin = 10;
constexpr int window_calls = 20;

double window_median(CONTESTANT& contestant, CLOCK clock) {
    std::vector<double> times;
    for (int call = 0; call < window_calls; ++call) {
        const double before = now(clock);
        if (contestant.query_opn_name("1A2B3C") != 0x1A2B3C) {
            stop("wrong answer of query_opn_name");
        }
        times.push_back(now(clock) - before);
    }
    return median(times);
}

void call_times(CONTESTANT& contestant, int calls) {
    for (int call = 0; call < calls; ++call) {
        contestant.query_opn_name("1");
    }
}

// The median of the calls from the 10th on, of a process that has just begun.
int print_first_window(const OPTIONS& options) {
    const std::unique_ptr<CONTESTANT> contestant = make_contestant(options.contestant);
    call_times(*contestant, window_begin - 1);
    std::cout << window_median(*contestant, options.clock) << '\n';
    return 0;
}

// Makes all but the last of so many calls, then compares calls with those of new processes,
// alternately. Writes the first calls' time, the later ones', and their ratio.
int print_later_window(const OPTIONS& options) {
    const std::unique_ptr<CONTESTANT> contestant = make_contestant(options.contestant);
    const int rounds = options.quick ? 5 : 15;
    std::vector<double> first;
    std::vector<double> later;
    call_times(*contestant, options.window - rounds * window_calls);
    for (int round = 0; round < rounds; ++round) {
        first.push_back(figure_of_own({"--contestant", options.contestant, "--later-of", "first",
                                       flag("--processor-time", options.clock != CLOCK::wall)}));
        later.push_back(window_median(*contestant, options.clock));
    }
    std::cout << 1000 * median(first) << ' ' << 1000 * median(later) << ' '
              << median(ratios(later, first)) << '\n';
    return 0;
}

TABLE time_later_calls(const OPTIONS& options) {
    TABLE table({"query_opn_name after many calls", "10th call ms", "later call ms", "ratio"});
    if (std::string("later calls").find(options.filter) == std::string::npos) {
        return table;
    }
    for (const int calls : options.later_calls) {
        for (const char* const contestant : {"library", "by hand"}) {
            std::cerr << "call " << calls << ", " << contestant << '\n';
            char path[4096];
            const ssize_t length = ::readlink(program_path, path, sizeof path);
            const OUTCOME outcome =
                run_process({std::string(path, static_cast<std::size_t>(length)), "--contestant",
                             contestant, "--later-of", "later", "--window", std::to_string(calls),
                             flag("--quick", options.quick),
                             flag("--processor-time", options.clock != CLOCK::wall)});
            std::istringstream figures(outcome.output);
            double first = 0;
            double later = 0;
            double ratio = 0;
            if (outcome.status != 0 || !(figures >> first >> later >> ratio)) {
                stop("the program cannot run itself");
            }
            table.add({"call " + std::to_string(calls) + ", " + contestant, fixed(first, 2),
                       fixed(later, 2), fixed(ratio, 3)});
        }
    }
    return table;
}

// The machine

std::string first_line_with(const char* file, const std::string& begin) {
    std::ifstream lines(file);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, begin.size(), begin) == 0) {
            const std::size_t at = line.find_first_not_of(" \t", line.find(':') + 1);
            return line.substr(at == std::string::npos ? line.size() : at);
        }
    }
    return "unknown";
}

std::string load_average() {
    std::ifstream file("/proc/loadavg");
    std::string load;
    file >> load;
    return load;
}

void print_machine(std::ostream& out, const OPTIONS& options) {
    utsname system;
    ::uname(&system);
    const std::string memory = first_line_with("/proc/meminfo", "MemTotal");
    out << "- Processor: " << first_line_with("/proc/cpuinfo", "model name") << ", "
        << ::sysconf(_SC_NPROCESSORS_ONLN) << " cores, "
        << fixed(std::strtod(memory.c_str(), nullptr) / mib, 1) << " GiB of memory\n"
        << "- System: " << system.sysname << ' ' << system.release
        << "; compiler: " << BENCH_COMPILER << "; " << BENCH_FLAGS << "\n"
        << "- Python " << PY_VERSION << "; pybind11: " << BENCH_PYBIND11_VERSION
        << "; Google Benchmark " << BENCH_BENCHMARK_VERSION << "\n"
        << "- Times are " << (options.clock == CLOCK::wall ? "wall" : "processor")
        << " times, medians of rounds; the machine's load when the run began: " << load_average()
        << "\n";
}

int run(const OPTIONS& options) {
    std::ostringstream machine;
    print_machine(machine, options);
    std::cerr << machine.str();
    std::vector<TABLE> tables = {time_calls(options), cost_of_bytes(options),
                                 measure_peaks(options), time_hex_text(options),
                                 time_later_calls(options)};
    struct ABOUT_KINDS {
        const char* name;
        TABLE (*make)(bool quick);
    };
    for (const ABOUT_KINDS& about :
         {ABOUT_KINDS{"kinds", time_kinds}, ABOUT_KINDS{"threads", time_threads},
          ABOUT_KINDS{"pth", cost_of_pth_files}}) {
        if (std::string(about.name).find(options.filter) != std::string::npos) {
            std::cerr << about.name << '\n';
            tables.push_back(about.make(options.quick));
        }
    }
    std::ostringstream text;
    text << machine.str();
    for (const TABLE& table : tables) {
        if (!table.empty()) {
            text << '\n';
            table.print(text);
        }
    }
    std::cout << text.str();
    if (!options.markdown.empty() && !(std::ofstream(options.markdown) << text.str())) {
        stop("cannot write " + options.markdown);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    OPTIONS options;
    CLI::App app("Times the library's calls beside other ways to do the same.");
    app.add_option("--markdown", options.markdown, "write the tables to this file too");
    app.add_option("--filter", options.filter, "only the work whose name holds this text");
    app.add_option("--later-calls", options.later_calls,
                   "compare these calls with the 10th (default: 1000)")
        ->delimiter(',')
        ->check(CLI::Range(500, 1000000));
    app.add_flag("--quick", options.quick, "a quarter of the rounds");
    bool processor_time = false;
    app.add_flag("--processor-time", processor_time,
                 "take the processor's time instead of wall time: for a machine with other work");
    app.add_option("--contestant", options.contestant)->group("");
    app.add_option("--peak-of", options.peak_of)->group("");
    app.add_option("--later-of", options.later_of)->group("");
    app.add_option("--window", options.window)->group("");
    CLI11_PARSE(app, argc, argv);
    options.clock = processor_time ? CLOCK::processor : CLOCK::wall;
    set_environment();
    if (!options.peak_of.empty()) {
        return print_peak(options);
    }
    if (!options.later_of.empty()) {
        return options.later_of == "first" ? print_first_window(options)
                                           : print_later_window(options);
    }
    return run(options);
}
