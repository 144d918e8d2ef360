// Calls in worker processes: what a caller sees of them.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "pgm/pgm_python/worker_pool.h"
#include "tests/support.h"

namespace {

typedef std::vector<std::string> REPORTS;

// Calls go to workers while it lives.
class WORKER_CALLS {
public:
    WORKER_CALLS() {
        warm_up_workers();
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
        // Tests link the library's objects, beside which its program is not.
        PGM_PYTHON_SETTINGS::set_worker(std::string(PGM_PYTHON_PROGRAMS "/") + worker_program_name);
    }
    ~WORKER_CALLS() { PGM_PYTHON_SETTINGS::use_environment(); }
    WORKER_CALLS(const WORKER_CALLS&) = delete;
    WORKER_CALLS& operator=(const WORKER_CALLS&) = delete;
};

const char script_source[] =
    "import os, sys, time, signal, threading\n"
    "kept = []\n"
    "def double(data): return data + data\n"
    "def pid(data): return bytearray(str(os.getpid()).encode())\n"
    "def folder(data): return bytearray(os.getcwd().encode())\n"
    "def variable(data): return bytearray(os.environ.get('PGM_TEST', 'unset').encode())\n"
    "def path(data): return bytearray('\\n'.join(sys.path[:4]).encode())\n"
    "def bin(data): return bytearray(os.environ['PGM_PYTHON_BIN_DIR'].encode())\n"
    "def arguments(data): return bytearray(repr(sys.argv[1:]).encode())\n"
    "def stay(data):\n"
    "    kept.append(1)\n"
    "    found = [len(kept), os.environ.get('PGM_LEFT'), signal.getsignal(signal.SIGINT) is\n"
    "             signal.SIG_IGN, threading.active_count(), 'left' in sys.modules]\n"
    "    os.environ['PGM_LEFT'] = 'here'\n"
    "    os.chdir('/')\n"
    "    signal.signal(signal.SIGINT, signal.SIG_IGN)\n"
    "    sys.modules['left'] = sys\n"
    "    threading.Thread(target=time.sleep, args=(1000,), daemon=True).start()\n"
    "    return bytearray(repr(found).encode())\n"
    "def end_0(data): os._exit(0)\n"
    "def end_7(data): os._exit(7)\n"
    "def abort(data): os.abort()\n"
    "def crash(data):\n"
    "    import faulthandler\n"
    "    faulthandler._sigsegv()\n"
    "def refuse(data): raise ValueError('refused')\n"
    "def linger(data): time.sleep(1000)\n"
    "def exit(data): sys.exit(3)\n";

class Worker : public testing::Test {
protected:
    // Calls a function of the script; "no bytes" when nothing came back.
    std::string call(const char* function, const std::string& data = "data",
                     const std::vector<std::string>& arguments = {}) const {
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> bytes(PGM_PYTHON_MGR::modify_bitstream(
            reinterpret_cast<const unsigned char*>(data.data()),
            static_cast<unsigned long>(data.size()), size, script, function, arguments));
        return bytes ? std::string(bytes.get(), bytes.get() + size) : "no bytes";
    }

    // What a call reports whose worker ends in this way.
    static REPORTS reports_of_end(const std::string& how, const std::string& function) {
        return {"error: Python worker ended in the call: " + how,
                "error 20351: Fail to execute function " + function + " in file bits"};
    }

    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/bits.py", script_source);
    RECORDING_RECEIVER receiver;
    const WORKER_CALLS worker_calls;
    const NOTHING_LEFT_BEHIND before;
};

TEST_F(Worker, ACallIsAnsweredByAnotherProcessAndEachByOneOfItsOwn) {
    EXPECT_EQ(call("double", "ab"), "abab");
    const std::string first = call("pid");
    const std::string second = call("pid");
    EXPECT_NE(first, second);
    EXPECT_GT(std::stoi(first), 0);
    EXPECT_GT(std::stoi(second), 0);
    EXPECT_EQ(receiver.reports, REPORTS());
    before.check();
}

TEST_F(Worker, NothingOfAScriptStays) {
    const std::string folder = std::filesystem::current_path().string();
    for (int count = 0; count < 3; ++count) {
        EXPECT_EQ(call("stay"), "[1, None, False, 1, False]");
        EXPECT_EQ(std::filesystem::current_path().string(), folder);
    }
    EXPECT_EQ(receiver.reports, REPORTS());
    before.check();
}

TEST_F(Worker, TheEnvironmentOfTheMomentIsTheScripts) {
    EXPECT_EQ(call("variable"), "unset");
    for (const char* const value : {"one", "two"}) {
        const ENVIRONMENT_VALUE changed("PGM_TEST", value);
        EXPECT_EQ(call("variable"), value);
    }
    EXPECT_EQ(call("variable"), "unset");
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(Worker, TheCurrentFolderOfTheMomentIsTheScripts) {
    call("double");  // starts one that waits in the folder of now
    const TEMPORARY_FOLDER other;
    const CURRENT_FOLDER changed(other.path());
    EXPECT_EQ(call("folder"), std::filesystem::current_path().string());
}

TEST_F(Worker, TheSuitesFoldersAreThoseOfTheHost) {
    EXPECT_EQ(call("path"), installation.common() + "/python\n" + installation.unshipped() +
                                "/python/source\n" + installation.common() + "/python/source\n" +
                                installation.common() + "/python");
    EXPECT_EQ(call("bin"), installation.bin());
    // Where nothing names them they follow from the host's program, not the worker's.
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", nullptr);
    EXPECT_EQ(call("bin"), PGM_PYTHON_PROGRAMS);
}

TEST_F(Worker, TheScriptsArgumentsArrive) {
    EXPECT_EQ(call("arguments", "", {"--one", "two words"}), "['--one', 'two words']");
}

TEST_F(Worker, ALargeBitstreamGoesThereAndBack) {
    std::string data(48U << 20, '\0');
    for (std::size_t at = 0; at < data.size(); ++at) {
        data[at] = static_cast<char>(at * 31 + (at >> 13));
    }
    EXPECT_TRUE(call("double", data) == data + data);
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(Worker, AFunctionThatRaisesFailsTheCallAsEverywhere) {
    EXPECT_EQ(call("refuse"), "no bytes");
    EXPECT_EQ(call("exit"), "no bytes");
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error 20351: Fail to execute function refuse in file bits",
                       "error 20351: Fail to execute function exit in file bits"}));
    before.check();
}

TEST_F(Worker, AMissingFunctionIsReportedAsEverywhere) {
    const std::string errors = written_by([this] { EXPECT_EQ(call("nothing"), "no bytes"); });
    EXPECT_NE(errors.find("AttributeError"), std::string::npos) << errors;
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Fail to find function nothing",
                       "error 20351: Fail to execute function nothing in file bits"}));
}

TEST_F(Worker, AProcessThatEndsInTheCallFailsIt) {
    EXPECT_EQ(call("end_0"), "no bytes");
    EXPECT_EQ(receiver.reports, reports_of_end("exit status 0", "end_0"));
    receiver.reports.clear();
    EXPECT_EQ(call("end_7"), "no bytes");
    EXPECT_EQ(receiver.reports, reports_of_end("exit status 7", "end_7"));
    receiver.reports.clear();
    EXPECT_EQ(call("double", "x"), "xx");
    EXPECT_EQ(receiver.reports, REPORTS());
    before.check();
}

TEST_F(Worker, AProcessThatCrashesFailsTheCall) {
    // A sanitizer in the worker leaves the crash to the system.
    const ENVIRONMENT_VALUE options("ASAN_OPTIONS", "handle_segv=0:detect_leaks=0");
    for (const char* const function : {"abort", "crash"}) {
        EXPECT_EQ(call(function), "no bytes");
        ASSERT_EQ(receiver.reports.size(), 2U);
#if !defined(_WIN32)
        EXPECT_EQ(receiver.reports[0],
                  std::string("error: Python worker ended in the call: ") +
                      (*function == 'a' ? "signal 6, Aborted" : "signal 11, Segmentation fault"));
#endif
        EXPECT_EQ(receiver.reports[1], std::string("error 20351: Fail to execute function ") +
                                           function + " in file bits");
        receiver.reports.clear();
        EXPECT_EQ(call("double", "x"), "xx");
    }
    before.check();
}

TEST_F(Worker, AProcessThatEndsInTheImportFailsIt) {
    const std::string ending =
        installation.common_script("python/ending.py", "import os\nos._exit(5)\n");
    unsigned long size = 0;
    EXPECT_EQ(PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, ending, "f", {}), nullptr);
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Python worker ended in the call: exit status 5",
                       "error: Fail to load module ending",
                       "error 20351: Fail to execute function f in file ending"}));
    before.check();
}

TEST_F(Worker, ACallThatTakesTooLongIsEnded) {
    PGM_PYTHON_SETTINGS::set_call_timeout(0.75);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call("linger"), "no bytes");
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(750));
    EXPECT_LT(took, std::chrono::seconds(60));
    EXPECT_EQ(receiver.reports, reports_of_end("time limit of 0.75 seconds", "linger"));
    PGM_PYTHON_SETTINGS::set_call_timeout(0);
    EXPECT_EQ(call("double", "x"), "xx");
    before.check();
}

TEST_F(Worker, TheTimeLimitOfTheEnvironmentCounts) {
    const ENVIRONMENT_VALUE limit("PGM_PYTHON_CALL_TIMEOUT", "0.5");
    EXPECT_EQ(call("linger"), "no bytes");
    EXPECT_EQ(receiver.reports, reports_of_end("time limit of 0.5 seconds", "linger"));
}

TEST_F(Worker, ReasonsThatCameBeforeTheEndAreReported) {
    const std::string sender = installation.common_script(
        "python/sender.py", std::string(send_function) +
                                "import os\n"
                                "def f(data):\n"
                                "    send(b'the first !@#$^&*() the second')\n"
                                "    os._exit(1)\n");
    unsigned long size = 0;
    EXPECT_EQ(PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, sender, "f", {}), nullptr);
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Python worker ended in the call: exit status 1",
                                         "error 20351: Fail to execute function f in file sender",
                                         "error 20353: the first", "error 20353: the second"}));
    before.check();
}

constexpr BRIDGE late_bridge =
    BRIDGE(77).with_late_back_channel().printing_call_failure("Fail to call it");

TEST_F(Worker, ALateBridgeIsCompletedWhetherItsWorkerEndsOrNot) {
    const std::string sender =
        installation.common_script("python/late.py", std::string(send_function) +
                                                         "import os\n"
                                                         "def succeed(): return 1\n"
                                                         "def refuse():\n"
                                                         "    send(b'a reason')\n"
                                                         "    raise ValueError\n"
                                                         "def end():\n"
                                                         "    send(b'a reason')\n"
                                                         "    os._exit(0)\n");
    const auto run = [&](const char* function) {
        BRIDGE_CALL call(late_bridge, sender, function);
        bool success = true;
        written_by([&] { success = call.run(ANSWER_FORM::KIND::ignored).success; });
        return success;
    };
    EXPECT_TRUE(run("succeed"));
    EXPECT_EQ(receiver.reports, REPORTS());
    EXPECT_FALSE(run("refuse"));
    const REPORTS failure = {"error: Fail to call it",
                             "error 20351: Fail to execute function refuse in file late",
                             "error 20353: a reason"};
    EXPECT_EQ(receiver.reports, failure);
    receiver.reports.clear();
    EXPECT_FALSE(run("end"));
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Python worker ended in the call: exit status 0",
                                         "error: Fail to call it",
                                         "error 20351: Fail to execute function end in file late",
                                         "error 20353: a reason"}));
    before.check();
}

// ---- Workers that end after the function has returned: what was reported is not reported again,
// and what was not is.

class EndingWorker : public Worker {
protected:
    // What the call of a bridge reports whose function does so, and whose process then ends.
    REPORTS reports_of(const BRIDGE& bridge, const std::string& body,
                       const std::string& start = "") {
        const std::string ending =
            installation.common_script("python/ending.py", start +
                                                               "import atexit, os\n"
                                                               "atexit.register(os._exit, 3)\n"
                                                               "def f(): " +
                                                               body + "\n");
        receiver.reports.clear();
        written_by([&] {
            BRIDGE_CALL call(bridge, ending, "f");
            EXPECT_FALSE(call.run(ANSWER_FORM::KIND::ignored).success);
        });
        before.check();
        return receiver.reports;
    }

    const std::string end = "error: Python worker ended in the call: exit status 3";
    const std::string failure = "error 20351: Fail to execute function f in file ending";
};

TEST_F(EndingWorker, ABridgeThatPostsItselfDoesSoOnce) {
    constexpr BRIDGE bridge = BRIDGE(78).posting_call_failure();
    EXPECT_EQ(reports_of(bridge, "return 1"), (REPORTS{end, failure}));
    EXPECT_EQ(reports_of(bridge, "raise ValueError"), (REPORTS{failure, end}));
}

TEST_F(EndingWorker, ABridgeThatPrintsALineDoesSoOnce) {
    constexpr BRIDGE bridge = BRIDGE(79).printing_call_failure("Fail to call it");
    EXPECT_EQ(reports_of(bridge, "return 1"), (REPORTS{end, "error: Fail to call it"}));
    EXPECT_EQ(reports_of(bridge, "raise ValueError"), (REPORTS{"error: Fail to call it", end}));
}

TEST_F(EndingWorker, AnEarlyBridgeIsCompletedOnce) {
    constexpr BRIDGE bridge = BRIDGE(80).with_early_back_channel();
    EXPECT_EQ(reports_of(bridge, "return 1"), (REPORTS{end, failure}));
    EXPECT_EQ(reports_of(bridge, "raise ValueError"), (REPORTS{end, failure}));
}

TEST_F(EndingWorker, ALateBridgeFailsOnceEvenIfItWasCompletedWell) {
    constexpr BRIDGE plain = BRIDGE(81).with_late_back_channel();
    EXPECT_EQ(reports_of(plain, "return 1"), (REPORTS{end, failure}));
    EXPECT_EQ(reports_of(plain, "raise ValueError"), (REPORTS{failure, end}));
    EXPECT_EQ(reports_of(late_bridge, "return 1"),
              (REPORTS{end, "error: Fail to call it", failure}));
    EXPECT_EQ(reports_of(late_bridge, "raise ValueError"),
              (REPORTS{"error: Fail to call it", failure, end}));
}

TEST_F(EndingWorker, AModuleThatCannotBeLoadedIsReportedOnce) {
    const std::string start = "import atexit, os\natexit.register(os._exit, 3)\nraise ValueError\n";
    EXPECT_EQ(reports_of(late_bridge, "return 1", start),
              (REPORTS{"error: Fail to load module ending", end}));
    EXPECT_EQ(reports_of(BRIDGE(82).with_early_back_channel(), "return 1", start),
              (REPORTS{"error: Fail to load module ending", end, failure}));
}

TEST_F(EndingWorker, ManyBytesThatCameAheadOfTheAnswerAreDropped) {
    const std::string ending = installation.common_script("python/ending.py",
                                                          "import atexit, os\n"
                                                          "def f():\n"
                                                          "    atexit.register(os._exit, 3)\n"
                                                          "    return bytearray(5000000)\n"
                                                          "def g(): return bytearray(5000000)\n");
    BRIDGE_CALL good(BRIDGE(83), ending, "g");
    const ANSWER whole = good.run(ANSWER_FORM::KIND::bytes);
    EXPECT_TRUE(whole.success);
    EXPECT_EQ(whole.bytes.size(), 5000000U);
    EXPECT_EQ(receiver.reports, REPORTS());
    BRIDGE_CALL call(BRIDGE(83), ending, "f");
    const ANSWER answer = call.run(ANSWER_FORM::KIND::bytes);
    EXPECT_FALSE(answer.success);
    EXPECT_EQ(answer.bytes.data(), nullptr);
    EXPECT_EQ(receiver.reports, REPORTS{end});
    before.check();
}

TEST_F(EndingWorker, AScriptThatRanFailsOnce) {
    for (const bool succeeds : {true, false}) {
        const std::string ending = installation.common_script(
            "python/ending.py", std::string("import atexit, os\natexit.register(os._exit, 3)\n") +
                                    (succeeds ? "" : "raise ValueError\n"));
        const char* argv[] = {ending.c_str(), nullptr};
        receiver.reports.clear();
        written_by([&] { EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(1, argv)); });
        const std::string message = "error 20354: Fail to execute file " + ending;
        EXPECT_EQ(receiver.reports, succeeds ? (REPORTS{end, message}) : (REPORTS{message, end}));
    }
}

TEST_F(Worker, AReceiverThatThrowsEndsTheCallAndNothingElse) {
    // No module's name can be made of it.
    EXPECT_EQ(thrown_by([&] {
                  BRIDGE_CALL call(BRIDGE(88), installation.common_script("python/.py", ""), "f");
                  call.run(ANSWER_FORM::KIND::ignored);
              }),
              internal_error("filename.size()", 88));
    EXPECT_EQ(call("double", "x"), "xx");
    before.check();
}

TEST_F(Worker, AnInternalErrorThatIsWrittenToGoOnGoesOn) {
    receiver.returns_from_internal_errors = true;
    EXPECT_EQ(call("arguments", "", {"one", "", "three"}), "['one', '', 'three']");
    EXPECT_EQ(receiver.reports,
              (REPORTS{internal_error("Argument at index 1 cannot be empty string", 1680)}));
    before.check();
}

TEST_F(Worker, AFatalInternalErrorThatReturnsEndsTheHost) {
    const std::string nameless = installation.common_script("python/.py", "");
    EXPECT_DEATH(
        {
            receiver.returns_from_internal_errors = true;
            BRIDGE_CALL call(BRIDGE(88), nameless, "f");
            call.run(ANSWER_FORM::KIND::ignored);
            std::_Exit(0);
        },
        "");
}

TEST_F(Worker, AProgramRunsAsAMainProgram) {
    const std::string file = installation.common_script(
        "python/main.py",
        "import sys\nprint(__name__, sys.argv[1:])\nsys.stderr.write('to errors\\n')\n"
        "if len(sys.argv) > 2: sys.exit('no')\n");
    const auto run = [&](const std::vector<const char*>& arguments, std::string& output,
                         std::string& errors) {
        std::vector<const char*> argv = arguments;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool success =
            PGM_PYTHON_MGR::run_python_file(static_cast<int>(argv.size()), argv.data());
        output = testing::internal::GetCapturedStdout();
        errors = testing::internal::GetCapturedStderr();
        return success;
    };
    std::string output;
    std::string errors;
    EXPECT_TRUE(run({file.c_str(), "one"}, output, errors));
    EXPECT_EQ(output, "__main__ ['one']\n");
    EXPECT_EQ(errors, "to errors\n");
    EXPECT_EQ(receiver.reports, REPORTS());
    EXPECT_FALSE(run({file.c_str(), "one", "two"}, output, errors));
    EXPECT_EQ(output, "__main__ ['one', 'two']\n");
    EXPECT_EQ(errors, "to errors\nno\n");
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + file}));
    receiver.reports.clear();
    EXPECT_TRUE(run({"-c", "print(6 * 7)"}, output, errors));
    EXPECT_EQ(output, "42\n");
    EXPECT_FALSE(run({"-c", "import os; os._exit(0)"}, output, errors));
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Python worker ended in the call: exit status 0"}));
    before.check();
}

TEST_F(Worker, LinesAndStreamsKeepTheirOrder) {
    MSG_RECEIVER* const recording = MSG_RECEIVER::set(nullptr);
    const std::string file = installation.common_script(
        "python/order.py",
        "import sys\nsys.stderr.write('one\\n')\nsys.stderr.flush()\nraise ValueError('two')\n");
    const std::string errors = written_by([&] {
        unsigned long size = 0;
        EXPECT_EQ(PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, file, "f", {}), nullptr);
    });
    MSG_RECEIVER::set(recording);
    const std::size_t one = errors.find("one\n");
    const std::size_t two = errors.find("ValueError: two\n");
    const std::size_t three = errors.find("error: Fail to load module order\n");
    const std::size_t four = errors.find("error 20351: ");
    EXPECT_EQ(one, 0U) << errors;
    EXPECT_LT(one, two);
    EXPECT_LT(two, three);
    EXPECT_LT(three, four);
    EXPECT_NE(four, std::string::npos) << errors;
}

TEST_F(Worker, CallsOfSeveralThreadsOverlap) {
    // Each waits for the other's file.
    const std::string meeting =
        installation.common_script("python/meeting.py",
                                   "import os, sys, time\n"
                                   "def meet(data):\n"
                                   "    own, other = data.decode().split('\\n')\n"
                                   "    open(own, 'w').close()\n"
                                   "    while not os.path.exists(other): time.sleep(0.005)\n"
                                   "    return data\n");
    PGM_PYTHON_SETTINGS::set_call_timeout(60);
    const std::string one = installation.folder().path() + "/one";
    const std::string two = installation.folder().path() + "/two";
    const auto meet = [&](const std::string& own, const std::string& other) {
        const std::string data = own + '\n' + other;
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> bytes(PGM_PYTHON_MGR::modify_bitstream(
            reinterpret_cast<const unsigned char*>(data.data()),
            static_cast<unsigned long>(data.size()), size, meeting, "meet", {}));
        EXPECT_EQ(size, data.size());
    };
    std::thread other_thread([&] { meet(one, two); });
    meet(two, one);
    other_thread.join();
    EXPECT_EQ(receiver.reports, REPORTS());
    before.check();
}

TEST_F(Worker, AProgramThatCannotBeStartedIsNamedWithTheReason) {
    PGM_PYTHON_SETTINGS::set_worker("/no/such/program");
    EXPECT_EQ(call("double"), "no bytes");
    ASSERT_EQ(receiver.reports.size(), 2U);
    const std::string start = "error: Python worker /no/such/program cannot be started: ";
    EXPECT_EQ(receiver.reports[0].compare(0, start.size(), start), 0) << receiver.reports[0];
    EXPECT_GT(receiver.reports[0].size(), start.size());
    EXPECT_EQ(receiver.reports[1], "error 20351: Fail to execute function double in file bits");
    before.check();
}

TEST_F(Worker, AProgramThatIsNoWorkerIsNamed) {
    const std::string program = PGM_PYTHON_PROGRAMS "/bare_sessions";
    PGM_PYTHON_SETTINGS::set_worker(program);
    EXPECT_EQ(call("double"), "no bytes");
    ASSERT_EQ(receiver.reports.size(), 2U);
    EXPECT_NE(receiver.reports[0].find(program + " cannot be started: "), std::string::npos)
        << receiver.reports[0];
}

TEST_F(Worker, TheProgramIsFoundByThePlaceOfTheLibrary) {
    PGM_PYTHON_SETTINGS::set_worker("");
    EXPECT_EQ(call("double", "x"), "xx");
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(Worker, KindsFollowOneAnotherInAnyOrder) {
    for (int round = 0; round < 3; ++round) {
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
        const std::string in_worker = call("pid");
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::fresh);
        const std::string in_process = call("pid");
        EXPECT_NE(in_worker, in_process);
    }
    EXPECT_EQ(receiver.reports, REPORTS());
    before.check();
}

TEST_F(Worker, ARootKeyArrives) {
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_zek_root_key(file, text, key):\n"
                               "    key[:] = bytes(range(1, 33))\n"
                               "    return True\n");
    unsigned long size = 0;
    const std::unique_ptr<unsigned char[]> key(
        PGM_PYTHON_MGR::get_zek_root_key("file.zek", size, "text"));
    ASSERT_EQ(size, 32U);
    for (unsigned at = 0; at < 32; ++at) {
        EXPECT_EQ(key[at], at + 1);
    }
    before.check();
}

TEST_F(Worker, TheCallsOfTheFirstRowsSucceedOneAfterTheOther) {
    const std::string imports = installation.common_script(
        "python/imports.py",
        "import hashlib, decimal, datetime, ctypes\n"
        "try: import sqlite3\n"
        "except ImportError: pass\n"
        "def f(data): return bytearray(str(decimal.Decimal(1) / 8).encode())\n");
    for (int count = 0; count < 4; ++count) {
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> bytes(
            PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, imports, "f", {}));
        EXPECT_EQ(size, 5U) << count;
    }
    EXPECT_EQ(receiver.reports, REPORTS());
}

}  // namespace
