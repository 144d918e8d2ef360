// Worker processes as the system sees them: when they end, and what they leave.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "pgm/pgm_python/script_run.h"
#include "pgm/pgm_python/worker_frames.h"
#include "pgm/pgm_python/worker_pool.h"
#include "tests/worker_processes.h"

const std::string WorkerProcesses::worker_program =
    std::string(PGM_PYTHON_PROGRAMS "/") + worker_program_name;

const char WorkerProcesses::script_source[] =
    "import os, sys, time, subprocess, signal\n"
    "def same(data): return data\n"
    "def folder(data): return bytearray(os.getcwd().encode())\n"
    "def near(data):\n"
    "    import near\n"
    "    return bytearray(near.answer.encode())\n"
    "def end(data): os._exit(9)\n"
    "def kill(data): os.kill(os.getpid(), getattr(signal, 'SIGKILL', 9))\n"
    "def crash(data):\n"
    "    if os.name == 'nt':\n"
    "        import faulthandler\n"
    "        faulthandler._read_null()\n"
    "    import ctypes\n"
    "    ctypes.string_at(0)\n"
    "def abort(data): os.abort()\n"
    "def no_memory(data):\n"
    "    import resource\n"
    "    resource.setrlimit(resource.RLIMIT_AS, (1 << 28, 1 << 28))\n"
    "    bytearray(1 << 32)\n"
    "def refuse(data): raise ValueError\n"
    "def linger(data): time.sleep(1000)\n"
    "def descriptors(data):\n"
    "    names = []\n"
    "    for name in sorted(os.listdir('/proc/self/fd'), key=int):\n"
    "        try: names.append(name + ' ' + os.readlink('/proc/self/fd/' + name).split(':')[0])\n"
    "        except OSError: pass\n"
    "    return bytearray('\\n'.join(names).encode())\n"
    "def sockets_of_child(data):\n"
    "    text = subprocess.run(['ls', '-l', '/proc/self/fd'], stdout=subprocess.PIPE,\n"
    "                          close_fds=False).stdout\n"
    "    return bytearray(str(text.count(b'socket')).encode())\n"
    "def sleep(**options):\n"
    "    if os.name == 'nt':\n"
    "        sleeper = [os.path.join(sys.base_prefix, 'python.exe'), '-c',\n"
    "                   'import time; time.sleep(1000)']\n"
    "        return subprocess.Popen(sleeper, **options)\n"
    "    return subprocess.Popen(['sleep', '1000'], start_new_session=True, **options)\n"
    "def leave_children(data):\n"
    "    sleep()\n"
    "    if os.name != 'nt':\n"
    "        subprocess.Popen(['sleep', '1000'])\n"
    "        subprocess.Popen(['sh', '-c', 'setsid sleep 1000 & sleep 1000'])\n"
    "    if data == b'linger': time.sleep(1000)\n"
    "    if data == b'end': os._exit(1)\n"
    "    return data\n"
    "def fork_and_return(data):\n"
    "    if os.fork() == 0: return bytearray(b'child')\n"
    "    os.wait()\n"
    "    return bytearray(b'parent')\n"
    "def fork_and_end(data):\n"
    "    if os.fork() == 0: time.sleep(1000)\n"
    "    os._exit(4)\n"
    "def child_signal(data):\n"
    "    return bytearray(str(int(signal.getsignal(signal.SIGCHLD) == signal.SIG_IGN)).encode())\n"
    "def blocks_end(data):\n"
    "    blocked = signal.pthread_sigmask(signal.SIG_BLOCK, [])\n"
    "    return bytearray(str(signal.SIGTERM in blocked).encode())\n"
    "def limit(data):\n"
    "    import resource\n"
    "    return bytearray(str(resource.getrlimit(resource.RLIMIT_NOFILE)[0]).encode())\n"
    "def locale(data):\n"
    "    import locale\n"
    "    return bytearray(locale.setlocale(locale.LC_NUMERIC).encode())\n"
    "def group(data): return bytearray(str(os.getegid()).encode())\n"
    "def mask(data):\n"
    "    before = os.umask(0)\n"
    "    return bytearray(oct(before).encode())\n"
    "def streams():\n"
    "    found = ''\n"
    "    for number in range(3):\n"
    "        try: found += '%d ' % os.fstat(number).st_ino\n"
    "        except OSError: found += 'closed '\n"
    "    return found\n"
    "def line(data): return bytearray(sys.stdin.readline().encode())\n";

MARK::MARK()
    : m_mark("PGM_TEST_MARK=" + std::to_string(std::random_device()()) + "x"),
      m_variable("PGM_TEST_MARK", m_mark.c_str() + 14) {}

bool MARK::has_at_most(std::size_t count) const {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (processes().size() > count) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void MARK::end_all() const {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int looks = 0; looks < 5 && std::chrono::steady_clock::now() < limit;) {
        const std::vector<int> left = processes();
        looks = left.empty() ? looks + 1 : 0;
        for (const int process : left) {
            kill_process(process);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(processes().empty());
}

WorkerProcesses::WorkerProcesses() {
    PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::worker);
    PGM_PYTHON_SETTINGS::set_worker(worker_program);
}

WorkerProcesses::~WorkerProcesses() {
    PGM_PYTHON_SETTINGS::use_environment();
}

std::string WorkerProcesses::call(const char* function, const std::string& data) const {
    unsigned long size = 0;
    const std::unique_ptr<unsigned char[]> bytes(PGM_PYTHON_MGR::modify_bitstream(
        reinterpret_cast<const unsigned char*>(data.data()),
        static_cast<unsigned long>(data.size()), size, script, function, {}));
    return bytes ? std::string(bytes.get(), bytes.get() + size) : "no bytes";
}

namespace {

TEST_F(WorkerProcesses, AWorkerStartedInOtherSurroundingsThanItsCallsIsNotKept) {
    const std::string own = surroundings_of_process();
    prepare_worker(worker_program, own + "another");
    EXPECT_FALSE(take_worker(worker_program, own + "another", false).was_waiting);
    prepare_worker(worker_program, own);
    EXPECT_TRUE(take_worker(worker_program, own, false).was_waiting);
}

TEST_F(WorkerProcesses, AWorkerThatDiedWhileItWaitedIsReplacedWithoutAWord) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(call("same"), "data");
        for (const int process : mark.processes()) {
            kill_process(process);
        }
        // At once, and when the system has seen it.
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 5));
    }
    EXPECT_EQ(call("same"), "data");
    EXPECT_EQ(receiver.reports, REPORTS());
}

// A worker that runs some code, which a test talks to as the library does.
class RUNNING_WORKER {
public:
    explicit RUNNING_WORKER(const std::string& program, const std::string& code)
        : m_process(take_worker(program, surroundings_of_process(), true).process) {
        RUN_REQUEST request;
        request.command = code;
        m_runs = m_process && m_process->greets() && m_process->send_streams() &&
                 write_run(*m_process, request, SUITE_FOLDERS());
    }

    // Whether it has said in the end that the run succeeded.
    bool answers_well() {
        ANSWER none;
        WORKER_EVENT event;
        while (m_runs && event.type != FRAME_TYPE::run_answer) {
            m_runs = read_from_worker(*m_process, answer_of(ANSWER_FORM::KIND::ignored), event,
                                      none) == FRAME_OUTCOME::whole;
        }
        return m_runs && event.flag;
    }

private:
    std::unique_ptr<WORKER_PROCESS> m_process;
    bool m_runs;
};

TEST_F(WorkerProcesses, AnAnswerOutlivesItsWorker) {
    RUNNING_WORKER worker(worker_program, "import time; time.sleep(1)");
    EXPECT_EQ(mark.processes().size(), processes_of_a_worker);
    // On POSIX the keeper is there until it is let go.
    EXPECT_TRUE(mark.has_at_most(processes_of_a_worker - 1));
    EXPECT_TRUE(worker.answers_well());
}

TEST_F(WorkerProcesses, AWorkerThatHasAnsweredHoldsNoFolder) {
    if (consoles_hold_folders()) {
        GTEST_SKIP() << "the worker's console holds the folder";
    }
    for (int count = 0; count < 5; ++count) {
        std::unique_ptr<RUNNING_WORKER> worker;
        {
            const CURRENT_FOLDER changed(installation.folder().make_folder("left"));
            worker = std::make_unique<RUNNING_WORKER>(worker_program, "import os; os.getcwd()");
        }
        EXPECT_TRUE(worker->answers_well());
        std::error_code error;
        EXPECT_TRUE(std::filesystem::remove(installation.folder().path() + "/left", error))
            << error.message();
    }
}

TEST_F(WorkerProcesses, AWorkerThatWaitsHoldsNoFolder) {
    if (consoles_hold_folders()) {
        GTEST_SKIP() << "the worker's console holds the folder";
    }
    const std::filesystem::path folder = installation.folder().make_folder("left");
    {
        const CURRENT_FOLDER changed(folder.string());
        EXPECT_EQ(call("same"), "data");
    }
    // It is in the folder until its interpreter has started.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::error_code error;
    while (!std::filesystem::remove(folder, error) && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(error) << error.message();
    EXPECT_TRUE(mark.has_at_most(processes_of_a_worker));  // the one that answered may be ending
    EXPECT_EQ(mark.processes().size(), processes_of_a_worker);
}

TEST_F(WorkerProcesses, TheScriptOfAWorkerThatWaitedIsInTheHostsFolder) {
    const CURRENT_FOLDER changed(installation.folder().make_folder("work"));
    for (int count = 0; count < 3; ++count) {
        EXPECT_EQ(call("folder"), std::filesystem::current_path().string());
        // For the next one to be waiting.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

TEST_F(WorkerProcesses, RelativeEntriesOfTheSearchPathAreBelowTheHostsFolder) {
    const CURRENT_FOLDER changed(installation.folder().make_folder("work"));
    installation.folder().write("work/modules/near.py", "answer = 'near'\n");
    const ENVIRONMENT_VALUE path("PYTHONPATH", "modules");
    for (int count = 0; count < 2; ++count) {
        EXPECT_EQ(call("near"), "near");
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the next one waits
    }
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(WorkerProcesses, AHostKilledAtAnyMomentLeavesNothing) {
    const std::string leaving = installation.common_script(
        "python/leaving.py", std::string(script_source) + "leave_children(b'linger')\n");
    for (int round = 0; round < 12; ++round) {
        run_and_kill(leaving, round * round * 4);
        EXPECT_TRUE(mark.is_gone()) << round;
    }
}

TEST_F(WorkerProcesses, TheChildrenOfACallThatTakesTooLongEndWithIt) {
    PGM_PYTHON_SETTINGS::set_call_timeout(2);
    EXPECT_EQ(call("leave_children", "linger"), "no bytes");
    EXPECT_EQ(receiver.reports.at(0),
              "error: Python worker ended in the call: time limit of 2 seconds");
    // What is left is the one that waits.
    EXPECT_LE(mark.processes().size(), processes_of_a_worker);
    EXPECT_EQ(call("leave_children", "end"), "no bytes");
    EXPECT_LE(mark.processes().size(), processes_of_a_worker);
}

// Throws what is reported.
class THROWING_RECEIVER : public RECORDING_RECEIVER {
public:
    void line(int /*type*/, const std::string& text) override { throw text; }
    void post(unsigned long /*number*/, const std::string& text) override { throw text; }
};

TEST_F(WorkerProcesses, AReceiverThatThrowsEndsTheCallWithAllThatItStarted) {
    const std::string file =
        installation.common_script("python/throwing.py", std::string(script_source) +
                                                             "def f():\n"
                                                             "    sleep()\n"
                                                             "    raise ValueError\n");
    const BRIDGE bridges[] = {BRIDGE(84).printing_call_failure("Fail to call it"),
                              BRIDGE(85).posting_call_failure(),
                              BRIDGE(86).with_late_back_channel()};
    for (const BRIDGE& bridge : bridges) {
        std::string thrown;
        {
            THROWING_RECEIVER throwing;
            written_by([&] {
                try {
                    BRIDGE_CALL bridge_call(bridge, file, "f");
                    bridge_call.run(ANSWER_FORM::KIND::ignored);
                } catch (const std::string& text) {
                    thrown = text;
                }
            });
        }
        EXPECT_EQ(thrown, bridge.line == 84 ? "Fail to call it"
                                            : "Fail to execute function f in file throwing");
        // The one that waits.
        EXPECT_TRUE(mark.has_at_most(processes_of_a_worker));
        EXPECT_EQ(mark.processes().size(), processes_of_a_worker);
        EXPECT_EQ(call("same"), "data");
    }
}

TEST_F(WorkerProcesses, TheTimeLimitHoldsWhereverAScriptLingers) {
    PGM_PYTHON_SETTINGS::set_call_timeout(1);
    for (const char* const source : {"import time\ntime.sleep(1000)\n",
                                     "import atexit, time\natexit.register(time.sleep, 1000)\n"
                                     "def same(data): return data\n"}) {
        const std::string file = installation.common_script("python/lingering.py", source);
        unsigned long size = 0;
        EXPECT_EQ(PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, file, "same", {}), nullptr);
        EXPECT_EQ(receiver.reports.at(0),
                  "error: Python worker ended in the call: time limit of 1 seconds");
        receiver.reports.clear();
    }
}

// ---- Good calls among those whose process dies, from several threads.

class DyingWorkers : public WorkerProcesses {
protected:
    void expect_good_calls_right(int calls);
};

void DyingWorkers::expect_good_calls_right(int calls) {
    constexpr int threads = 4;
    const char* const ways[] = {"end", "kill", "crash", "abort", "no_memory", "refuse"};
    // A sanitizer in the workers leaves crashes to the system.
    const ENVIRONMENT_VALUE options("ASAN_OPTIONS", "handle_segv=0:detect_leaks=0");
    call("same");
    const THREADS_BEFORE threads_before;
    const int handles_before = count_of_open_handles();
    std::atomic<int> good{0};
    std::atomic<int> bad{0};
    MSG_RECEIVER* const recording = MSG_RECEIVER::set(nullptr);
    const std::string errors = written_by([&] {
        std::vector<std::thread> callers;
        for (int thread = 0; thread < threads; ++thread) {
            callers.emplace_back([&, thread] {
                for (int count = thread; count < calls; count += threads) {
                    const std::string data = std::to_string(count);
                    if (count % 2 == 0) {
                        good += call("same", data) == data ? 1 : 0;
                    } else {
                        bad +=
                            call(ways[static_cast<std::size_t>(count / 2) % 6], data) == "no bytes"
                                ? 1
                                : 0;
                    }
                }
            });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
    });
    MSG_RECEIVER::set(recording);
    EXPECT_EQ(good, (calls + 1) / 2);
    EXPECT_EQ(bad, calls / 2);
    EXPECT_TRUE(threads_before.are_back());
    EXPECT_GE(count_of_open_handles(), handles_before);
    EXPECT_LE(count_of_open_handles(), handles_before + handles_of_locks);
    for (const char* const end : {end_of_a_killed_process, end_of_a_crashed_process}) {
        EXPECT_NE(errors.find(std::string("ended in the call: ") + end), std::string::npos) << end;
    }
    EXPECT_TRUE(mark.has_at_most(processes_of_a_worker));
    EXPECT_TRUE(port_is_free());
}

TEST_F(DyingWorkers, EveryGoodCallAmongThemIsRightAndNothingIsLeft) {
    expect_good_calls_right(40);
}

class EnduranceOfWorkers : public DyingWorkers {};

TEST_F(EnduranceOfWorkers, EveryGoodCallOfAThousandIsRightAndNothingIsLeft) {
    expect_good_calls_right(1000);
}

}  // namespace
