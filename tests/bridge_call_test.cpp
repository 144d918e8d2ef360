#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/call_completion.h"
#include "pgm/pgm_python/python_values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

#include "tests/support.h"

namespace {

typedef std::vector<std::string> REPORTS;

double milliseconds_of(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// ---- complete_python_call on a listener and record of the test's own.

int end_at_once(void* /*unused*/) {
    return 0;
}

int sleep_briefly(void* /*unused*/) {
    thr_msleep(150);
    return 0;
}

// Runs the step on a listener that has ended, with `text` received, and returns what was posted.
REPORTS completed(bool success, bool received, const std::string& text, const std::string& function,
                  const std::string& file) {
    RECORDING_RECEIVER receiver;
    PGM_PYTHON_LISTENER_DATA data;
    data.received = received;
    data.text = text;
    THR_THREAD thread = thr_thread_create(end_at_once, nullptr, 0);
    while (thr_thread_is_running(thread) != 0) {
        thr_msleep(1);
    }
    complete_python_call(success, &thread, &data, function, file);
    EXPECT_EQ(thread, nullptr);
    return receiver.reports;
}

TEST(CompletePythonCall, ReasonsFollowTheFailureMessageInOrder) {
    EXPECT_EQ(completed(false, true, "a !@#$^&*() b", "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m", "error 20353: a",
                       "error 20353: b"}));
}

TEST(CompletePythonCall, WithoutTextOnlyTheFailureMessageIsPosted) {
    EXPECT_EQ(completed(false, false, "", "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m"}));
    EXPECT_EQ(completed(false, true, "", "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m"}));
}

TEST(CompletePythonCall, TextThatWasNotReceivedIsNotRelayed) {
    EXPECT_EQ(completed(false, false, "half", "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m"}));
}

TEST(CompletePythonCall, ASuccessPostsNothingEvenWithText) {
    EXPECT_EQ(completed(true, true, "a !@#$^&*() b", "f", "m"), REPORTS{});
}

TEST(CompletePythonCall, AnEmptyFunctionNameGivesTheFileForm) {
    EXPECT_EQ(completed(false, true, "a", "", "/x/m.py"),
              (REPORTS{"error 20354: Fail to execute file /x/m.py", "error 20353: a"}));
}

TEST(CompletePythonCall, OnlyTheWholeDelimiterPartsReasonsAndEmptyOnesAreDropped) {
    EXPECT_EQ(
        completed(false, true,
                  " !@#$^&*()  a b! !@#$^&*() !@#$^&*() !@#$^&*() !@#$^&*()c !@#$^&*() ", "f", "m"),
        (REPORTS{"error 20351: Fail to execute function f in file m", "error 20353:  a b!",
                 "error 20353: !@#$^&*()", "error 20353: !@#$^&*()c"}));
}

TEST(CompletePythonCall, AReasonEndsAtItsFirstZeroByte) {
    EXPECT_EQ(completed(false, true, std::string("ab\0cd !@#$^&*() ef", 18), "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m", "error 20353: ab",
                       "error 20353: ef"}));
}

TEST(CompletePythonCall, ReasonsAreRelayedAsTheyWereReceived) {
    EXPECT_EQ(completed(false, true, "%1!s! %s \xFF\xC3(", "f", "m"),
              (REPORTS{"error 20351: Fail to execute function f in file m",
                       "error 20353: %1!s! %s \xFF\xC3("}));
}

TEST(CompletePythonCall, AListenerThatHasEndedIsNotWaitedFor) {
    EXPECT_LT(milliseconds_of([] { completed(false, false, "", "f", "m"); }), 90);
}

TEST(CompletePythonCall, TheListenerOfAFailedCallIsGivenTimeToEnd) {
    RECORDING_RECEIVER receiver;
    PGM_PYTHON_LISTENER_DATA data;
    THR_THREAD thread = thr_thread_create(sleep_briefly, nullptr, 0);
    const double time =
        milliseconds_of([&] { complete_python_call(false, &thread, &data, "f", "m"); });
    EXPECT_GE(time, 150);
    EXPECT_LT(time, 450);
}

TEST(CompletePythonCall, AListenerThatStillWaitsIsTerminatedAfterHalfASecond) {
    const NOTHING_LEFT_BEHIND before;
    RECORDING_RECEIVER receiver;
    BACK_CHANNEL back_channel;
    back_channel.start();
    const double time =
        milliseconds_of([&] { complete_python_call(false, back_channel, "f", "m"); });
    EXPECT_GE(time, 490);
    EXPECT_LT(time, 1500);
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20351: Fail to execute function f in file m"}));
    before.check();
}

TEST(CompletePythonCall, TheListenerOfASuccessfulCallIsTerminatedAtOnce) {
    const NOTHING_LEFT_BEHIND before;
    BACK_CHANNEL back_channel;
    back_channel.start();
    EXPECT_LT(milliseconds_of([&] { complete_python_call(true, back_channel, "f", "m"); }), 90);
    before.check();
}

// ---- The road, on bridges of the test's own.

constexpr BRIDGE plain = BRIDGE(501);
constexpr BRIDGE posting = BRIDGE(502).posting_call_failure();
constexpr BRIDGE early = BRIDGE(503).with_early_back_channel();
constexpr BRIDGE late = BRIDGE(504).with_late_back_channel();

class Road : public testing::Test {
protected:
    // Calls function `f` of the script with the text "given" and returns what it answered as text.
    std::string call(const BRIDGE& bridge, const std::string& source) {
        installation.common_script("python/road.py", source);
        return call_script(bridge, "%s/python/road.py", "f");
    }

    std::string call_script(const BRIDGE& bridge, const char* script, const std::string& function) {
        const std::string given = "given";
        BRIDGE_CALL road(bridge, common_script(script), function);
        road.set_script_arguments({"--option", "two words"});
        road.expect_tuple({"pArgs", 1});
        road.add_argument(text_argument(given), {"pArg", 2}, {"place", 3});
        const ANSWER answer = road.run(ANSWER_FORM::KIND::text);
        success = answer.success;
        return success ? answer.text : "no answer";
    }

    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
    bool success = false;
};

const char failing[] = "def f(text):\n    raise ValueError(text)\n";

TEST_F(Road, TheFunctionGetsItsArgumentsAndItsAnswerIsConverted) {
    for (const BRIDGE& bridge : {plain, posting, early, late}) {
        EXPECT_EQ(call(bridge, "def f(text):\n    return text + '!'\n"), "given!");
        EXPECT_TRUE(success);
        EXPECT_TRUE(receiver.reports.empty());
        before.check();
    }
}

TEST_F(Road, TheScriptSeesItsCommandLineAndSearchPath) {
    EXPECT_EQ(call(plain,
                   "import sys\n"
                   "def f(text):\n"
                   "    return '|'.join(sys.argv + sys.path[:4])\n"),
              installation.common() + "/python/road.py|--option|two words|" +
                  installation.common() + "/python|" + installation.unshipped() +
                  "/python/source|" + installation.common() + "/python/source|" +
                  installation.common() + "/python");
}

TEST_F(Road, AMissingScriptIsAnInternalErrorOfTheBridge) {
    for (const BRIDGE& bridge : {plain, posting, early, late}) {
        EXPECT_EQ(thrown_by([&] { call_script(bridge, "%s/python/missing.py", "f"); }),
                  internal_error("Python script " + installation.common() +
                                     "/python/missing.py doest not exist",
                                 bridge.line));
        before.check();
    }
}

TEST_F(Road, AnEmptyFunctionNameIsAnInternalErrorOfTheBridge) {
    installation.common_script("python/road.py", "");
    EXPECT_EQ(thrown_by([&] { call_script(early, "%s/python/road.py", ""); }),
              internal_error("Python function must be specified", 503));
    before.check();
}

TEST_F(Road, AnEmptyModuleNameIsAnInternalErrorOfTheBridge) {
    installation.common_script("python/.py", "");
    EXPECT_EQ(thrown_by([&] { call_script(early, "%s/python/.py", "f"); }),
              internal_error("filename.size()", 503));
    before.check();
}

TEST_F(Road, AnArgumentThatCannotBeMadeIsAnInternalErrorAndLeavesNothing) {
    installation.common_script("python/road.py", failing);
    const std::string bad = "\xFF";
    for (const BRIDGE& bridge : {plain, early, late}) {
        BRIDGE_CALL road(bridge, common_script("%s/python/road.py"), "f");
        road.expect_tuple({"pArgs", 1});
        road.add_argument(text_argument(bad), {"pArg != NULL", 2}, {"place", 3});
        EXPECT_EQ(thrown_by([&] { road.run(ANSWER_FORM::KIND::ignored); }),
                  internal_error("pArg != NULL", 2));
        before.check();
    }
    EXPECT_EQ(call(plain, "def f(text):\n    return 'next'\n"), "next");
}

TEST_F(Road, AnInternalErrorInTheConversionLeavesNothing) {
    installation.common_script("python/road.py", "def f():\n    return 1\n");
    for (const BRIDGE& bridge : {plain, early, late}) {
        BRIDGE_CALL road(bridge, common_script("%s/python/road.py"), "f");
        EXPECT_EQ(thrown_by([&] {
                      road.run({ANSWER_FORM::KIND::items, {"return_size == 3", 676}, {}, {}, 3});
                  }),
                  internal_error("return_size == 3", 676));
        before.check();
    }
}

TEST_F(Road, AScriptThatCannotBeLoadedIsReportedAfterItsTraceback) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(plain, "raise ValueError('at import')\n"), "no answer");
    EXPECT_FALSE(success);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.find("Traceback (most recent call last):"), 0U) << printed;
    EXPECT_NE(printed.find("ValueError: at import\n"), std::string::npos) << printed;
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to load module road"}));
}

TEST_F(Road, TheTracebackComesBeforeTheLine) {
    installation.common_script("python/road.py", "raise ValueError('at import')\n");
    MSG_RECEIVER::set(nullptr);
    testing::internal::CaptureStderr();
    call_script(plain, "%s/python/road.py", "f");
    const std::string printed = testing::internal::GetCapturedStderr();
    const std::string end = "ValueError: at import\nerror: Fail to load module road\n";
    ASSERT_GT(printed.size(), end.size());
    EXPECT_EQ(printed.substr(printed.size() - end.size()), end);
}

TEST_F(Road, AScriptThatLeavesAsItIsLoadedDoesNotEndTheHost) {
    for (const char* status : {"0", "3", "'text'", ""}) {
        receiver.reports.clear();
        testing::internal::CaptureStderr();
        call(plain, "import sys\nsys.exit(" + std::string(status) + ")\n");
        testing::internal::GetCapturedStderr();
        EXPECT_FALSE(success);
        EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to load module road"}));
        before.check();
    }
}

TEST_F(Road, AScriptThatLeavesAsItIsCalledHasFailed) {
    for (const char* status : {"0", "3", "'text'", ""}) {
        receiver.reports.clear();
        call(posting, "import sys\ndef f(text):\n    sys.exit(" + std::string(status) + ")\n");
        EXPECT_FALSE(success);
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error 20351: Fail to execute function f in file road"}));
        before.check();
    }
}

TEST_F(Road, AMissingFunctionIsReportedAfterItsTraceback) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(plain, "def g(text): pass\n"), "no answer");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_NE(printed.find("AttributeError"), std::string::npos) << printed;
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function f"}));
}

TEST_F(Road, AModuleNameThatIsNoTextIsReported) {
#if defined(_WIN32)
    GTEST_SKIP() << "file names are text on Windows";
#endif
    const std::string script = installation.folder().path() + "/common/programmer/python/\xFF.py";
    {
        std::FILE* const file = std::fopen(script.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fclose(file);
    }
    BRIDGE_CALL road(plain, script, "f");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(road.run(ANSWER_FORM::KIND::ignored).success);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("UnicodeDecodeError"), std::string::npos);
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to convert module name \xFF to PyObject"}));
    before.check();
}

TEST_F(Road, AFailedCallPrintsNoTraceback) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(early, failing), "no answer");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20351: Fail to execute function f in file road"}));
}

TEST_F(Road, OnlyABridgeThatPostsItselfPostsWithoutABackChannel) {
    call(plain, failing);
    EXPECT_TRUE(receiver.reports.empty());
    call(posting, failing);
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20351: Fail to execute function f in file road"}));
}

TEST_F(Road, ReasonsOfAFailedCallAreRelayed) {
    for (const BRIDGE& bridge : {early, late}) {
        receiver.reports.clear();
        call(bridge, std::string(send_function) +
                         "def f(text):\n"
                         "    send(b'first !@#$^&*() second')\n"
                         "    raise ValueError\n");
        EXPECT_EQ(receiver.reports, (REPORTS{"error 20351: Fail to execute function f in file road",
                                             "error 20353: first", "error 20353: second"}));
        before.check();
    }
}

TEST_F(Road, TextOfASuccessfulCallIsDiscarded) {
    for (const BRIDGE& bridge : {early, late}) {
        call(bridge, std::string(send_function) +
                         "def f(text):\n"
                         "    send(b'all is well')\n"
                         "    return ''\n");
        EXPECT_TRUE(success);
        EXPECT_TRUE(receiver.reports.empty());
        before.check();
    }
}

TEST_F(Road, AnEarlyListenerHearsAScriptThatFailsAsItIsLoaded) {
    testing::internal::CaptureStderr();
    call(early, std::string(send_function) + "send(b'no licence')\nraise ValueError\n");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to load module road",
                                         "error 20351: Fail to execute function f in file road",
                                         "error 20353: no licence"}));
}

TEST_F(Road, AnEarlyListenerIsCompletedWhenTheFunctionIsMissing) {
    testing::internal::CaptureStderr();
    call(early, "");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function f",
                                         "error 20351: Fail to execute function f in file road"}));
}

TEST_F(Road, ALateListenerDoesNotExistBeforeTheFunctionIsFound) {
    testing::internal::CaptureStderr();
    call(late, std::string(send_function) + "send(b'nobody listens')\n");
    call(late, "");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Fail to load module road", "error: Fail to find function f"}));
}

TEST_F(Road, AnEarlyListenerIsStartedBeforeTheScriptIsLookedFor) {
    bool port_was_free = true;
    struct LOOKER : RECORDING_RECEIVER {
        explicit LOOKER(bool& free) : m_free(free) {}
        void internal_error(const INTERNAL_ERROR& error) override {
            m_free = port_is_free();
            RECORDING_RECEIVER::internal_error(error);
        }
        bool& m_free;
    } looker(port_was_free);
    thrown_by([&] { call_script(early, "%s/python/missing.py", "f"); });
    EXPECT_FALSE(port_was_free);
    thrown_by([&] { call_script(late, "%s/python/missing.py", "f"); });
    EXPECT_TRUE(port_was_free);
    before.check();
}

// Notes whether the call still has the interpreter when a message is posted.
struct POST_LOOKER : RECORDING_RECEIVER {
    void post(unsigned long number, const std::string& text) override {
        running.push_back(interpreter_is_running() && PyGILState_Check() != 0);
        RECORDING_RECEIVER::post(number, text);
    }
    std::vector<bool> running;
};

TEST_F(Road, AnEarlyListenerIsCompletedAfterTheInterpreterIsFinalised) {
    POST_LOOKER looker;
    call(early, failing);
    EXPECT_EQ(looker.running, std::vector<bool>{false});
}

TEST_F(Road, ALateListenerIsCompletedWhileTheInterpreterRuns) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    POST_LOOKER looker;
    call(late, failing);
    EXPECT_EQ(looker.running, std::vector<bool>{true});
}

TEST_F(Road, ABridgeThatPostsItselfDoesSoWhileTheInterpreterRuns) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    POST_LOOKER looker;
    call(posting, failing);
    EXPECT_EQ(looker.running, std::vector<bool>{true});
}

TEST_F(Road, AFailedCallThatSentNothingTakesHalfASecond) {
    for (const BRIDGE& bridge : {early, late}) {
        const double time = milliseconds_of([&] { call(bridge, failing); });
        EXPECT_GE(time, 490);
        EXPECT_LT(time, 3000);
    }
}

TEST_F(Road, AFailedCallWhoseListenerHasEndedDoesNotWait) {
    const std::string sends = std::string(send_function) +
                              "import time\n"
                              "def f(text):\n"
                              "    send(b'x')\n"
                              "    time.sleep(0.05)\n";
    const std::string fails = sends + "    raise ValueError\n";
    const std::string succeeds = sends + "    return text\n";
    call(plain, sends.c_str());  // loads what there is to load
    std::vector<double> failing_times;
    std::vector<double> successful_times;
    for (int round = 0; round < 5; ++round) {
        failing_times.push_back(milliseconds_of([&] { call(early, fails); }));
        successful_times.push_back(milliseconds_of([&] { call(early, succeeds); }));
    }
    // One of five is enough: a whole grace would show in every one.
    EXPECT_LT(*std::min_element(failing_times.begin(), failing_times.end()),
              *std::min_element(successful_times.begin(), successful_times.end()) + 400);
}

TEST_F(Road, APortThatIsTakenLosesTheReasonsOnly) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    for (const BRIDGE& bridge : {early, late}) {
        receiver.reports.clear();
        EXPECT_EQ(call(bridge, "def f(text):\n    return text\n"), "given");
        call(bridge, failing);
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error 20351: Fail to execute function f in file road"}));
    }
}

TEST_F(Road, AClientThatHangsDoesNotHoldTheCall) {
    const std::string hanging =
        "import socket\n"
        "def f(text):\n"
        "    global channel\n"
        "    channel = socket.create_connection(('127.0.0.1', 57343))\n";
    for (const BRIDGE& bridge : {early, late}) {
        receiver.reports.clear();
        EXPECT_LT(milliseconds_of([&] { call(bridge, hanging + "    return ''\n"); }), 3000);
        EXPECT_TRUE(success);
        EXPECT_LT(milliseconds_of([&] { call(bridge, hanging + "    raise ValueError\n"); }), 3000);
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error 20351: Fail to execute function f in file road"}));
        before.check();
    }
}

TEST_F(Road, SocketsAreNotInheritedByProcessesThatAScriptStarts) {
    // The child outlives the call; were the listening socket its own, the port would stay taken.
    call(early,
         "import os, subprocess, sys\n"
         "def f(text):\n"
         "    python = sys.executable if os.name == 'posix' else sys.base_prefix + '/python.exe'\n"
         "    subprocess.Popen([python, '-c', 'import time; time.sleep(3)'],\n"
         "                     close_fds=False, stdin=subprocess.DEVNULL)\n"
         "    return ''\n");
    EXPECT_TRUE(success);
    EXPECT_TRUE(port_is_free());
}

TEST_F(Road, NothingOfOneSessionIsSeenByTheNext) {
    EXPECT_EQ(call(plain,
                   "import builtins\n"
                   "def f(text):\n"
                   "    builtins.left_behind = 1\n"
                   "    return ''\n"),
              "");
    EXPECT_EQ(call(plain,
                   "import builtins\n"
                   "def f(text):\n"
                   "    return str(hasattr(builtins, 'left_behind'))\n"),
              "False");
}

TEST(Conversions, NumbersAreSigned32BitOnTheWayIn) {
    struct ROW {
        unsigned long number;
        long seen;
    };
    INTERPRETER_SESSION session;
    for (const ROW& row : {ROW{0, 0}, ROW{0x7FFFFFFF, 2147483647L},
                           ROW{0x80000000UL, -2147483647L - 1}, ROW{0xFFFFFFFFUL, -1}}) {
        const PY_REFERENCE made =
            PY_REFERENCE::owned(make_object(number_argument(row.number), session));
        EXPECT_EQ(PyLong_AsLong(made.get()), row.seen);
    }
    if (sizeof(unsigned long) > 4) {
        const unsigned long wide = static_cast<unsigned long>(0x1234567890ULL);
        const PY_REFERENCE made = PY_REFERENCE::owned(make_object(number_argument(wide), session));
        EXPECT_EQ(PyLong_AsLong(made.get()), 0x34567890L);
    }
}

TEST(Conversions, NumbersAre0To0xFFFFFFFFOnTheWayOut) {
    struct ROW {
        long long given;
        unsigned long stored;
    };
    const INTERPRETER_SESSION session;
    for (const ROW& row : {ROW{0, 0}, ROW{0x7FFFFFFF, 0x7FFFFFFF}, ROW{-1, 0xFFFFFFFFUL},
                           ROW{-2147483647LL - 1, 0x80000000UL}, ROW{0x80000000LL, 0xFFFFFFFFUL},
                           ROW{0xFFFFFFFFLL, 0xFFFFFFFFUL}, ROW{0x100000001LL, 0xFFFFFFFFUL}}) {
        const PY_REFERENCE number = PY_REFERENCE::owned(PyLong_FromLongLong(row.given));
        EXPECT_EQ(number_of_int(number.get()), row.stored) << row.given;
        EXPECT_EQ(PyErr_Occurred(), nullptr);
    }
    EXPECT_EQ(number_of_int(Py_None), 0xFFFFFFFFUL);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace
