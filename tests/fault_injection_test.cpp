#include <gtest/gtest.h>

#include <iterator>
#include <tuple>

#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/faulty_platform.h"
#include "tests/support.h"

using faulty_platform::CALL;

namespace {

typedef std::vector<std::string> REPORTS;

constexpr CALL all_calls[] = {CALL::start_thread,
                              CALL::start_up,
                              CALL::find_address,
                              CALL::open_socket,
                              CALL::allow_address_reuse,
                              CALL::bind_to,
                              CALL::start_listening,
                              CALL::accept_client,
                              CALL::receive};
static_assert(std::size(all_calls) == faulty_platform::number_of_calls, "a call is left out");

// How often a listener leaves the platform's socket service when the call fails: where the service
// was entered and no socket came to listen.
int clean_ups_after(CALL call) {
    return call >= CALL::find_address && call <= CALL::start_listening ? 1 : 0;
}

void check_platform() {
    EXPECT_EQ(faulty_platform::held(), "");
    EXPECT_EQ(faulty_platform::misuse(), "");
}

// ---- A listener on its own.

class FaultyListener : public testing::Test {
protected:
    FaultyListener() {
        faulty_platform::begin_anew();
        data.text = "old";
        data.set_up = &set_up;
    }
    ~FaultyListener() override {
        before.check();
        check_platform();
        EXPECT_TRUE(receiver.reports.empty());
    }

    void start() {
        thread = thr_thread_create(listen_python_messages, &data, 0);
        ASSERT_NE(thread, nullptr);
        set_up.wait();
    }

    NOTHING_LEFT_BEHIND before;
    RECORDING_RECEIVER receiver;
    LISTENER_LATCH set_up;
    PGM_PYTHON_LISTENER_DATA data;
    THR_THREAD thread = nullptr;
};

class FaultySetUp : public FaultyListener, public testing::WithParamInterface<CALL> {};

TEST_P(FaultySetUp, EndsTheListenerAtOnce) {
    faulty_platform::make_fail(GetParam());
    start();
    thr_thread_wait(thread);
    for (const CALL call : all_calls) {
        EXPECT_EQ(faulty_platform::count_of(call), call <= GetParam() ? 1 : 0)
            << faulty_platform::name_of(call);
    }
    EXPECT_EQ(faulty_platform::count_of_failures(), 1);
    EXPECT_EQ(faulty_platform::count_of_clean_ups(), clean_ups_after(GetParam()));
    EXPECT_FALSE(data.received);
    EXPECT_EQ(data.text, "old");
}

INSTANTIATE_TEST_SUITE_P(Each, FaultySetUp,
                         testing::Values(CALL::start_up, CALL::find_address, CALL::open_socket,
                                         CALL::allow_address_reuse, CALL::bind_to,
                                         CALL::start_listening),
                         [](const auto& call) { return faulty_platform::name_of(call.param); });

TEST_F(FaultyListener, WithoutAClientKeepsNothing) {
    faulty_platform::make_fail(CALL::accept_client);
    start();
    thr_thread_wait(thread);
    EXPECT_EQ(faulty_platform::count_of_failures(), 1);
    EXPECT_EQ(faulty_platform::count_of(CALL::receive), 0);
    EXPECT_EQ(faulty_platform::count_of_clean_ups(), 0);
    EXPECT_FALSE(data.received);
    EXPECT_EQ(data.text, "old");
}

TEST_F(FaultyListener, ThatReceivesNothingShutsDownAndKeepsNothing) {
    faulty_platform::make_fail(CALL::receive);
    start();
    {
        const CLIENT client;
        EXPECT_TRUE(client.sees_silent_end());
    }
    thr_thread_wait(thread);
    EXPECT_EQ(faulty_platform::count_of_failures(), 1);
    EXPECT_EQ(faulty_platform::count_of_shut_downs(), 1);
    EXPECT_EQ(faulty_platform::count_of_clean_ups(), 0);
    EXPECT_FALSE(data.received);
    EXPECT_EQ(data.text, "old");
}

TEST_F(FaultyListener, WithoutAFaultMakesEveryCallOnceAndStaysInTheSocketService) {
    start();
    CLIENT().send("why it failed");
    thr_thread_wait(thread);
    for (const CALL call : all_calls) {
        EXPECT_EQ(faulty_platform::count_of(call), 1) << faulty_platform::name_of(call);
    }
    EXPECT_EQ(faulty_platform::count_of_failures(), 0);
    EXPECT_EQ(faulty_platform::count_of_shut_downs(), 1);
    EXPECT_EQ(faulty_platform::count_of_clean_ups(), 0);
    EXPECT_TRUE(faulty_platform::received_into_zeros(2048));
    EXPECT_EQ(data.text, "why it failed");
}

// ---- Operations.

enum class WAY {
    early,         // generate_rim
    late,          // sync_p4file
    main_program,  // run_python_file
};
constexpr WAY all_ways[] = {WAY::early, WAY::late, WAY::main_program};

const char* name_of(WAY way) {
    return way == WAY::early ? "early" : way == WAY::late ? "late" : "main_program";
}

void PrintTo(WAY way, std::ostream* stream) {
    *stream << name_of(way);
}

// Tells two reasons, waits until the listener is done with them or seen not to be there, and does
// what it was asked to do.
const char script[] =
    "import socket, sys\n"
    "def act(wanted):\n"
    "    try:\n"
    "        with socket.create_connection(('127.0.0.1', 57343), 5) as channel:\n"
    "            channel.sendall(b'one !@#$^&*() two')\n"
    "            channel.recv(1)\n"
    "    except OSError:\n"
    "        pass\n"
    "    if wanted == 'fail':\n"
    "        raise ValueError\n"
    "    return wanted\n"
    "def external_make_rim_function(rbf_file, family, number, output_file):\n"
    "    return act(family)\n"
    "def sync_p4file(folder, source):\n"
    "    return act(source)\n"
    "if __name__ == '__main__':\n"
    "    act(sys.argv[1])\n";

class FaultyOperation : public testing::Test {
protected:
    FaultyOperation() {
        installation.common_script("python/rim_generator.pyc", script);
        installation.common_script("python/pgm_python_common_function.pyc", script);
        main_program = installation.folder().write("tool.py", script);
        faulty_platform::begin_anew();
    }

    // Whether the operation succeeded that was asked for `wanted`.
    bool call(WAY way, const std::string& wanted) {
        receiver.reports.clear();
        bool success = false;
        written_by([&] {  // a main program's traceback
            if (way == WAY::early) {
                success = PGM_PYTHON_MGR::generate_rim("in", wanted, 1, "out");
            } else if (way == WAY::late) {
                const std::string answer = PGM_PYTHON_MGR::sync_p4file("folder", wanted);
                success = !answer.empty();
                EXPECT_EQ(answer, success ? wanted : "");
            } else {
                const char* argv[] = {main_program.c_str(), wanted.c_str()};
                success = PGM_PYTHON_MGR::run_python_file(2, argv);
            }
        });
        check();
        return success;
    }

    // What an operation reports that was asked to fail.
    REPORTS failure(WAY way) const {
        if (way == WAY::main_program) {
            return {"error 20354: Fail to execute file " + main_program};
        }
        return {std::string("error 20351: Fail to execute function ") +
                (way == WAY::early ? "external_make_rim_function in file rim_generator"
                                   : "sync_p4file in file pgm_python_common_function")};
    }
    REPORTS failure_with_reasons(WAY way) const {
        REPORTS reports = failure(way);
        reports.insert(reports.end(), {"error 20353: one", "error 20353: two"});
        return reports;
    }

    void check() const {
        before.check();
        check_platform();
    }

    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
    std::string main_program;
};

class FaultyCall : public FaultyOperation,
                   public testing::WithParamInterface<std::tuple<CALL, WAY>> {
protected:
    // Calls with the fault, which must have taken place.
    bool call_with_fault(const std::string& wanted) {
        faulty_platform::begin_anew();
        faulty_platform::make_fail(fault);
        const bool success = call(way, wanted);
        EXPECT_EQ(faulty_platform::count_of_failures(), 1);
        EXPECT_EQ(faulty_platform::count_of_clean_ups(), clean_ups_after(fault));
        return success;
    }

    const CALL fault = std::get<CALL>(GetParam());
    const WAY way = std::get<WAY>(GetParam());
};

TEST_P(FaultyCall, LosesTheReasonsOnlyAndLeavesNothing) {
    constexpr int rounds = 4;
    int handles = 0;
    for (int round = 0; round < rounds; ++round) {
        EXPECT_TRUE(call_with_fault("succeed"));
        EXPECT_EQ(receiver.reports, REPORTS{});
        EXPECT_FALSE(call_with_fault("fail"));
        EXPECT_EQ(receiver.reports, failure(way));

        faulty_platform::begin_anew();
        EXPECT_FALSE(call(way, "fail"));
        EXPECT_EQ(receiver.reports, failure_with_reasons(way));
        EXPECT_EQ(faulty_platform::count_of_clean_ups(), 0);
        if (round == 0) {
            handles = count_of_open_handles();  // what Python opens once is open now
        }
    }
    const int handles_left = count_of_open_handles() - handles;
    constexpr int calls = 3 * (rounds - 1);
    // One left by every faulty call would be more.
    EXPECT_LT(handles_left - handles_left_by_sessions(calls, "import socket"), rounds - 1);
}

INSTANTIATE_TEST_SUITE_P(Each, FaultyCall,
                         testing::Combine(testing::ValuesIn(all_calls),
                                          testing::ValuesIn(all_ways)),
                         [](const auto& test) {
                             return std::string(name_of(std::get<WAY>(test.param))) + "_" +
                                    faulty_platform::name_of(std::get<CALL>(test.param));
                         });

TEST_F(FaultyOperation, OfThreeLosesItsOwnReasonsOnly) {
    for (const CALL fault : all_calls) {
        for (int nth = 1; nth <= 3; ++nth) {
            faulty_platform::begin_anew();
            faulty_platform::make_fail(fault, nth);
            int number = 0;
            for (const WAY way : all_ways) {
                EXPECT_FALSE(call(way, "fail"));
                EXPECT_EQ(receiver.reports,
                          ++number == nth ? failure(way) : failure_with_reasons(way))
                    << faulty_platform::name_of(fault) << " failed in call " << nth;
            }
            EXPECT_EQ(faulty_platform::count_of_failures(), 1);
        }
    }
}

TEST_F(FaultyOperation, ThatEndsInAnInternalErrorLeavesNothing) {
    const std::string no_text = "\xFF";
    for (const CALL fault : all_calls) {
        if (fault == CALL::accept_client || fault == CALL::receive) {
            continue;  // the listener may be ended before it comes that far
        }
        faulty_platform::begin_anew();
        faulty_platform::make_fail(fault);
        EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR::generate_rim(no_text, "fail", 1, "out"); }),
                  internal_error("pArg0 != nullptr", 1540));
        check();
        faulty_platform::make_fail(fault);
        EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR::sync_p4file(no_text, "fail"); }),
                  internal_error("pArg0 != NULL", 961));
        check();
        EXPECT_EQ(faulty_platform::count_of_failures(), 2);
        EXPECT_EQ(faulty_platform::count_of_clean_ups(), 2 * clean_ups_after(fault));
        EXPECT_FALSE(call(WAY::early, "fail"));
        EXPECT_EQ(receiver.reports, failure_with_reasons(WAY::early));
    }
}

TEST_F(FaultyOperation, WhoseScriptCannotBeLoadedIsReportedAllTheSame) {
    installation.common_script("python/rim_generator.pyc", "raise ValueError\n");
    for (const CALL fault : all_calls) {
        faulty_platform::begin_anew();
        faulty_platform::make_fail(fault);
        EXPECT_FALSE(call(WAY::early, "fail"));
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error: Fail to load module rim_generator", failure(WAY::early)[0]}))
            << faulty_platform::name_of(fault);
        EXPECT_EQ(faulty_platform::count_of_clean_ups(), clean_ups_after(fault));
    }
}

}  // namespace
