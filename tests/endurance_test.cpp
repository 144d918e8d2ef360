#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "tests/support.h"

namespace {

constexpr BRIDGE early = BRIDGE(1).with_early_back_channel();
constexpr BRIDGE late = BRIDGE(2).with_late_back_channel();

bool call(const BRIDGE& bridge, const std::string& script, const char* function) {
    BRIDGE_CALL road(bridge, script, function);
    return road.run(ANSWER_FORM::KIND::ignored).success;
}

const char script_source[] =
    "import _socket\n"
    "def succeed(): return 1\n"
    "def send():\n"
    "    channel = _socket.socket(_socket.AF_INET, _socket.SOCK_STREAM)\n"
    "    channel.connect(('127.0.0.1', 57343))\n"
    "    channel.sendall(b'first act')\n"
    "    channel.close()\n"
    "def refuse():\n"
    "    send()\n"
    "    raise ValueError\n"
    "def succeed_aloud():\n"
    "    send()\n"
    "def fail_silently(): raise ValueError\n";

TEST(Endurance, AReasonSentAsTheFirstActIsDeliveredEveryTime) {
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/many.py", script_source);
    RECORDING_RECEIVER receiver;
    int delivered = 0;
    for (int round = 0; round < 1000; ++round) {
        receiver.reports.clear();
        call(round % 2 == 0 ? early : late, script, "refuse");
        if (receiver.reports.size() == 2 && receiver.reports[1] == "error 20353: first act") {
            ++delivered;
        }
    }
    EXPECT_EQ(delivered, 1000);
}

TEST(Endurance, AThousandMixedCallsLeaveNoThreadNoHandleAndAFreePort) {
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/many.py", script_source);
    RECORDING_RECEIVER receiver;
    int threads = 0;
    int handles = 0;
    int calls_with_a_taken_port = 0;
    int wrong_results = 0;
    constexpr int mixed_calls = 1000;
    constexpr int first_calls = 10;
    for (int round = 0; round < mixed_calls; ++round) {
        const BRIDGE& bridge = round % 2 == 0 ? early : late;
        // A failing call that says nothing waits for half a second, so there are fewer of them.
        if (round % 100 == 37 || round % 100 == 62) {
            wrong_results += call(bridge, script, "fail_silently") ? 1 : 0;
        } else if (round % 4 < 2) {
            wrong_results += call(bridge, script, "refuse") ? 1 : 0;
        } else {
            wrong_results +=
                call(bridge, script, round % 8 < 4 ? "succeed" : "succeed_aloud") ? 0 : 1;
        }
        calls_with_a_taken_port += port_is_free() ? 0 : 1;
        if (round == first_calls - 1) {
            threads = count_of_threads();
            handles = count_of_open_handles();
        }
    }
    EXPECT_EQ(wrong_results, 0);
    EXPECT_EQ(calls_with_a_taken_port, 0);
    EXPECT_EQ(count_of_threads(), threads);
    const int handles_left = count_of_open_handles() - handles;
    constexpr int sessions = 50;
    EXPECT_LE(handles_left * sessions,
              handles_left_by_sessions(sessions, "import _socket") * (mixed_calls - first_calls));
}

TEST(Endurance, OperationsMayBeCalledOneAfterAnotherFromDifferentThreads) {
    SKIP_UNLESS_FRESH("the thread that starts a kept interpreter stays its main one");
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "import threading\n"
                               "def get_username(x):\n"
                               "    main = threading.current_thread() is threading.main_thread()\n"
                               "    return x + str(main)\n");
    const std::string script = installation.common_script("python/many.py", script_source);
    RECORDING_RECEIVER receiver;
    for (int round = 0; round < 20; ++round) {
        std::string name;
        std::thread([&] {
            name = PGM_PYTHON_MGR::get_username("user ");
            call(early, script, "refuse");
        }).join();
        EXPECT_EQ(name, "user True");
        EXPECT_EQ(PGM_PYTHON_MGR::get_username(""), "True");
    }
    EXPECT_EQ(receiver.reports.size(), 40U);
}

// With the look at the references after them, a multiple of the 64 sessions after which Python 3.7
// and 3.8 change some references.
constexpr int calls_with_a_flag = 8 * 64 - 1;

// How far calls change the references to True and False.
std::vector<Py_ssize_t> change_by(int calls, const std::function<void()>& call) {
    const auto references = [] {
        const INTERPRETER_SESSION session;
        return std::vector<Py_ssize_t>{Py_REFCNT(Py_True), Py_REFCNT(Py_False)};
    };
    const std::vector<Py_ssize_t> before = references();
    for (int round = 0; round < calls; ++round) {
        call();
    }
    const std::vector<Py_ssize_t> after = references();
    return {after[0] - before[0], after[1] - before[1]};
}

class Readings : public testing::TestWithParam<bool> {};

TEST_P(Readings, FiveHundredWithAFlagLeaveTrueAndFalseAsTheyWere) {
    const TEST_INSTALLATION installation;
    installation.common_script(
        "python/pgm_python_common_function.pyc",
        "def read_mif(file, continuous): return [bytearray(b'image'), 8, int(continuous)]\n"
        "def get_username(user): return [bytearray(b'image'), 8, 1]\n");
    RECORDING_RECEIVER receiver;
    int right_results = 0;
    const std::vector<Py_ssize_t> change = change_by(calls_with_a_flag, [&] {
        unsigned long width = 0;
        unsigned long depth = 2;
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> image(
            PGM_PYTHON_MGR::read_mif("memory.mif", GetParam(), width, depth, size));
        right_results +=
            image && size == 5 && image[4] == 'e' && depth == (GetParam() ? 1UL : 0UL) ? 1 : 0;
    });
    EXPECT_EQ(right_results, calls_with_a_flag);
    EXPECT_TRUE(receiver.reports.empty());
#if PY_VERSION_HEX >= 0x030C0000
    GTEST_SKIP() << "True and False are immortal in this Python: no references to compare";
#endif
    // Sessions of Python 3.7 and 3.8 leave references behind, so calls without a flag are the
    // measure.
    const std::vector<Py_ssize_t> without_flag =
        change_by(calls_with_a_flag, [] { PGM_PYTHON_MGR::get_username(""); });
    // What one session leaves; a reference not paid back by each call would be 511.
    constexpr Py_ssize_t margin = 50;
    for (std::size_t flag = 0; flag < change.size(); ++flag) {
        EXPECT_LE(std::abs(change[flag] - without_flag[flag]), margin) << flag;
    }
}

INSTANTIATE_TEST_SUITE_P(Endurance, Readings, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& flag) {
                             return std::string(flag.param ? "True" : "False");
                         });

TEST(Endurance, FiveHundredExtractionsGrowTheProcessNoMoreThanBareSessionsDo) {
    const TEST_INSTALLATION installation;
    installation.folder().write("common/programmernwfmt/nw.py",
                                "def get_bram_chunks(*a): return [bytearray(b'x')]\n");
    RECORDING_RECEIVER receiver;
    // A key or value of every call that stayed would be 312 MiB.
    const std::string text(640 * 1024, 'x');
    const std::map<std::string, std::string> map = {{"key " + text, "value " + text}};
    int right_results = 0;
    const auto extract = [&] {
        unsigned long size = 0;
        PGM_PYTHON_MGR manager;
        right_results +=
            manager.get_nwfmt_data("nw.py", "get_bram_chunks", "", map, map, "", map, map, size)
                        .size() == 1
                ? 1
                : 0;
    };
    constexpr int first_calls = 50;
    constexpr int many_calls = 500;
    for (int round = 0; round < first_calls; ++round) {
        extract();
    }
    const PEAK_MEMORY with_sessions;
    for (int round = 0; round < many_calls; ++round) {
        const INTERPRETER_SESSION session;
    }
    const long long session_growth = with_sessions.growth();
    const PEAK_MEMORY with_calls;
    for (int round = 0; round < many_calls; ++round) {
        extract();
    }
    const long long call_growth = with_calls.growth();
    EXPECT_EQ(right_results, first_calls + many_calls);
    EXPECT_TRUE(receiver.reports.empty());
    if (session_growth < 0 || call_growth < 0) {
        GTEST_SKIP() << "the platform does not tell how the memory in use rises";
    }
    EXPECT_LT(call_growth, session_growth + 160 * 1024 * 1024);
}

TEST(Endurance, AHundredThousandCallsInAKeptInterpreterGrowNeitherSlowerNorLarger) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def query_opn_name(name): return 7\n");
    PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::kept);
    constexpr int calls = 10000;
    int right = 0;
    // The processor time that they take, in seconds.
    const auto time_of_calls = [&right] {
        const std::clock_t begin = std::clock();
        for (int round = 0; round < calls; ++round) {
            right += PGM_PYTHON_MGR::query_opn_name("x") == 7 ? 1 : 0;
        }
        return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    };
    const double first = time_of_calls();
    const long long memory = resident_memory();
    double last = 0;
    for (int block = 1; block < 10; ++block) {
        last = time_of_calls();
    }
    const long long growth = resident_memory() - memory;
    PGM_PYTHON_SETTINGS::use_environment();
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    EXPECT_EQ(right, 10 * calls);
    EXPECT_LE(last, 1.5 * first);
    if (memory >= 0) {
        EXPECT_LE(growth, 9LL * calls * 1024);
    }
}

}  // namespace
