// Worker processes on POSIX: what they hold, when they end, and hosts that do unusual things with
// their children.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <thread>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "pgm/pgm_python/worker_pool.h"
#include "tests/worker_processes.h"

const std::size_t processes_of_a_worker = 2;  // a keeper and its worker

const int handles_of_locks = 0;

const char end_of_a_killed_process[] = "signal 9, Killed";
const char end_of_a_crashed_process[] = "signal 11, Segmentation fault";

namespace {

std::string content_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

std::vector<int> processes_with(const std::string& entry) {
    std::vector<int> found;
    std::error_code error;
    for (std::filesystem::directory_iterator folder("/proc", error), end; !error && folder != end;
         folder.increment(error)) {
        const int process = std::atoi(folder->path().filename().c_str());
        if (process <= 0 || process == ::getpid()) {
            continue;
        }
        // A process that has ended has no environment any more.
        if (content_of(folder->path() / "environ").find(entry + '\0') != std::string::npos) {
            found.push_back(process);
        }
    }
    return found;
}

void kill_process(int process) {
    ::kill(process, SIGKILL);
}

void run_and_kill(const std::string& script, int milliseconds) {
    const pid_t host = ::fork();
    if (host == 0) {
        ::setenv("PGM_PYTHON_CALLS", "worker", 1);
        const int nothing = ::open("/dev/null", O_RDWR);
        ::dup2(nothing, 1);
        ::dup2(nothing, 2);
        ::execl(PGM_PYTHON_PROGRAMS "/pgm_python_run", "pgm_python_run", script.c_str(), nullptr);
        ::_exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    ::kill(host, SIGKILL);
    ::waitpid(host, nullptr, 0);
}

bool consoles_hold_folders() {
    return false;
}

namespace {

// Starts this in a process of its own that ends with it; its status, as a shell gives it.
template <typename ACTION>
int in_child(const ACTION& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(action());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(WorkerProcesses, AWorkerHasNothingOfTheHostsOpenButTheStreams) {
    std::array<int, 2> leaking = {};
    ASSERT_EQ(::pipe(leaking.data()), 0);  // without O_CLOEXEC, as careless hosts do it
    const std::string descriptors = call("descriptors");
    const std::size_t third = descriptors.find("\n2 ");
    ASSERT_NE(third, std::string::npos) << descriptors;
    // Nothing behind the streams but the connection.
    EXPECT_EQ(descriptors.substr(descriptors.find('\n', third + 1) + 1), "4 socket");
    // One waits now; the other end of the pipe sees this process close it.
    ::close(leaking[1]);
    pollfd end = {leaking[0], POLLIN, 0};
    EXPECT_EQ(::poll(&end, 1, 5000), 1);
    char byte = 0;
    EXPECT_EQ(::read(leaking[0], &byte, 1), 0);
    ::close(leaking[0]);
}

TEST_F(WorkerProcesses, AWorkerThatWaitsHoldsNotEvenTheStreams) {
    std::array<int, 2> output = {};
    ASSERT_EQ(::pipe2(output.data(), O_CLOEXEC), 0);
    const int before = ::dup(STDOUT_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    EXPECT_EQ(call("same"), "data");
    ::dup2(before, STDOUT_FILENO);
    ::close(before);
    ::close(output[1]);
    pollfd end = {output[0], POLLIN, 0};
    EXPECT_EQ(::poll(&end, 1, 20000), 1);
    EXPECT_EQ(end.revents, POLLHUP);
    ::close(output[0]);
    EXPECT_FALSE(mark.processes().empty());
}

TEST_F(WorkerProcesses, NothingThatAScriptStartsGetsTheConnection) {
    EXPECT_EQ(call("sockets_of_child"), "0");
}

TEST_F(WorkerProcesses, StreamsThatChangedSinceTheStartAreTheScripts) {
    call("same");
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("input", "a line\n");
    const int before = ::dup(STDIN_FILENO);
    const int input = ::open(file.c_str(), O_RDONLY);
    ::dup2(input, STDIN_FILENO);
    ::close(input);
    EXPECT_EQ(call("line"), "a line\n");
    ::dup2(before, STDIN_FILENO);
    ::close(before);
}

TEST_F(WorkerProcesses, AMaskThatChangedSinceTheStartIsTheScripts) {
    const mode_t before = ::umask(022);
    EXPECT_EQ(call("mask"), "0o22");
    ::umask(027);
    EXPECT_EQ(call("mask"), "0o27");
    ::umask(before);
}

TEST_F(WorkerProcesses, SignalsThatAreIgnoredSinceTheStartAreTheScripts) {
    EXPECT_EQ(call("child_signal"), "0");
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGCHLD, &ignore, &before);
    EXPECT_EQ(call("child_signal"), "1");
    ::sigaction(SIGCHLD, &before, nullptr);
    EXPECT_EQ(call("child_signal"), "0");
}

TEST_F(WorkerProcesses, SignalsThatTheCallersThreadBlocksAreTheScripts) {
    std::thread([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
        EXPECT_EQ(call("blocks_end"), "True");
    }).join();
    EXPECT_EQ(call("blocks_end"), "False");
}

TEST_F(WorkerProcesses, LimitsThatChangedSinceTheStartAreTheScripts) {
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(call("limit"), std::to_string(before.rlim_cur));
    rlimit other = before;
    other.rlim_cur -= 7;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &other), 0);
    EXPECT_EQ(call("limit"), std::to_string(other.rlim_cur));
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(WorkerProcesses, AGroupThatChangedSinceTheStartIsTheScripts) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root changes its group";
    }
    EXPECT_EQ(in_child([&] {
                  const std::string before = std::to_string(::getegid());
                  if (call("group") != before || ::setegid(12345) != 0) {
                      return 1;
                  }
                  return call("group") == "12345" ? 0 : 2;
              }),
              0);
}

TEST_F(WorkerProcesses, AHostThatIgnoresItsChildrenGetsItsAnswers) {
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGCHLD, &ignore, &before);
    EXPECT_EQ(call("child_signal"), "1");
    EXPECT_EQ(call("end"), "no bytes");
    ::sigaction(SIGCHLD, &before, nullptr);
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Python worker ended in the call: exit status 9",
                       "error 20351: Fail to execute function end in file bits"}));
}

TEST_F(WorkerProcesses, AHostThatWaitsForAnyChildSeesNone) {
    EXPECT_EQ(call("same"), "data");
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    std::atomic<bool> ended{false};
    std::atomic<int> children{0};
    std::thread waiting([&] {
        while (!ended) {
            children += ::waitpid(-1, nullptr, 0) > 0 ? 1 : 0;
        }
    });
    for (int count = 0; count < 5; ++count) {
        EXPECT_EQ(call("same"), "data");
        EXPECT_EQ(call("kill"), "no bytes");
    }
    ended = true;
    waiting.join();
    EXPECT_EQ(children, 0);
    EXPECT_EQ(receiver.reports.at(0), "error: Python worker ended in the call: signal 9, Killed");
}

TEST_F(WorkerProcesses, AHostThatTakesOrphansHasNoneOfItsWorkers) {
    const int status = in_child([&] {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        for (int count = 0; count < 3; ++count) {
            if (call("same") != "data") {
                return 1;
            }
        }
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::fresh);
        int ended = 0;
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
            ++ended;
        }
        return ended == 0 ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(mark.is_gone());
}

TEST_F(WorkerProcesses, AForkedHostDoesNotShareTheWorkerThatWaits) {
    EXPECT_EQ(call("same", "one"), "one");
    EXPECT_EQ(in_child([&] { return call("same", "two") == "two" ? 0 : 1; }), 0);
    EXPECT_EQ(call("same", "three"), "three");
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(WorkerProcesses, AForkedChildThatLivesOnKeepsNoWorkerAlive) {
    std::array<int, 2> go_on = {};
    ASSERT_EQ(::pipe2(go_on.data(), O_CLOEXEC), 0);
    pid_t grandchild = 0;
    std::array<int, 2> told = {};
    ASSERT_EQ(::pipe2(told.data(), O_CLOEXEC), 0);
    EXPECT_EQ(in_child([&] {
                  call("same");
                  const pid_t child = ::fork();
                  if (child == 0) {
                      char byte = 0;
                      ::close(go_on[1]);
                      static_cast<void>(!::read(go_on[0], &byte, 1));
                      ::_exit(0);
                  }
                  static_cast<void>(!::write(told[1], &child, sizeof child));
                  return 0;
              }),
              0);
    ASSERT_EQ(::read(told[0], &grandchild, sizeof grandchild),
              static_cast<ssize_t>(sizeof grandchild));
    // The mark is in the environment that a process was started with, so only workers have it.
    EXPECT_TRUE(mark.is_gone());
    EXPECT_EQ(::kill(grandchild, 0), 0);
    for (const int descriptor : {go_on[0], go_on[1], told[0], told[1]}) {
        ::close(descriptor);
    }
}

TEST_F(WorkerProcesses, AProgramThatEndsInTheMidstOfACallEnds) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(in_child([&] {
                  std::thread([&] { call("linger"); }).detach();
                  std::this_thread::sleep_for(std::chrono::milliseconds(300));
                  std::_Exit(0);
                  return 1;
              }),
              0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_TRUE(mark.is_gone());
}

TEST_F(WorkerProcesses, AProgramThatExitsInTheMidstOfACallEnds) {
    const PROGRAM_RESULT result =
        run_program("timeout", {"60", PGM_PYTHON_PROGRAMS "/ending_host"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(mark.is_gone());
}

TEST_F(WorkerProcesses, AnUnloadedLibraryLeavesNoProcess) {
    const std::string library =
        (std::filesystem::path(PGM_PYTHON_PROGRAMS) / "../lib/libpgm_python.so").string();
    const int status = in_child([&] {
        ::setenv("PGM_PYTHON_CALLS", "worker", 1);
        for (int round = 0; round < 2; ++round) {
            void* const handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
            typedef bool (*RUN)(int, const char**);
            const RUN run = handle == nullptr
                                ? nullptr
                                : reinterpret_cast<RUN>(::dlsym(
                                      handle, "_ZN14PGM_PYTHON_MGR15run_python_fileEiPPKc"));
            const char* argv[] = {"-c", "pass", nullptr};
            if (run == nullptr || !run(2, argv) || mark.processes().empty()) {
                return 1;
            }
            ::dlclose(handle);
            if (::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD) != nullptr) {
                return 2;  // it was not unloaded
            }
            if (!mark.is_gone()) {
                return 3;
            }
            if (in_child([] { return 0; }) != 0) {
                return 4;  // what the library wanted to hear of forks is gone with it
            }
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(WorkerProcesses, APipeOfAProgramEndsWithTheProgram) {
    const std::string command =
        "PGM_PYTHON_CALLS=worker " PGM_PYTHON_PROGRAMS "/pgm_python_run -c 'print(1)' | cat";
    const PROGRAM_RESULT result = run_program("timeout", {"60", "sh", "-c", command});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "1\n");
    EXPECT_TRUE(mark.is_gone());
}

TEST_F(WorkerProcesses, AProgramWithoutStandardStreamsRunsScripts) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.path() + "/file";
    const std::string command = "PGM_PYTHON_CALLS=worker " PGM_PYTHON_PROGRAMS
                                "/pgm_python_run -c 'import sys; open(\"" +
                                file + "\", \"w\").write(repr(sys.stdin))' <&- >&- 2>&-";
    EXPECT_EQ(run_program("timeout", {"60", "sh", "-c", command}).status, 0);
    EXPECT_EQ(folder.read("file"), "None");
}

TEST_F(WorkerProcesses, WhateverStreamsTheHostHasAreTheScripts) {
    std::array<std::string, 3> files;
    std::array<std::string, 3> numbers;
    for (std::size_t stream = 0; stream < 3; ++stream) {
        files[stream] = installation.folder().write("stream" + std::to_string(stream), "");
        struct stat status = {};
        ASSERT_EQ(::stat(files[stream].c_str(), &status), 0);
        numbers[stream] = std::to_string(status.st_ino) + " ";
    }
    for (unsigned open = 0; open < 8; ++open) {
        std::string expected;
        for (std::size_t stream = 0; stream < 3; ++stream) {
            expected += (open >> stream & 1) != 0 ? numbers[stream] : "closed ";
        }
        const int status = in_child([&] {
            for (int stream = 0; stream < 3; ++stream) {
                const int file = ::open(files[static_cast<std::size_t>(stream)].c_str(), O_RDWR);
                ::dup2(file, stream);
                ::close(file);
            }
            for (int stream = 0; stream < 3; ++stream) {
                if ((open >> stream & 1) == 0) {
                    ::close(stream);
                }
            }
            // By a worker that has just been started, and by one that waited.
            for (int count = 0; count < 3; ++count) {
                // Without a listener, whose sockets would be where streams are closed.
                BRIDGE_CALL bridge_call(BRIDGE(89), script, "streams");
                const std::string found = bridge_call.run(ANSWER_FORM::KIND::text).text;
                if (found != expected) {
                    installation.folder().write("found", found);
                    return count + 1;
                }
            }
            return 0;
        });
        EXPECT_EQ(status, 0) << expected << installation.folder().read("found");
    }
}

TEST_F(WorkerProcesses, WhatAScriptLeavesRunningRunsOnAsInProcess) {
    EXPECT_EQ(call("leave_children", "go"), "go");
    const auto sleepers = [this] {
        std::vector<pid_t> found;
        for (const pid_t process : mark.processes()) {
            if (content_of("/proc/" + std::to_string(process) + "/cmdline").rfind("sleep", 0) ==
                0) {
                found.push_back(process);
            }
        }
        return found;
    };
    // The shell starts two of the four in its own time.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (sleepers().size() < 4 && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(sleepers().size(), 4U);
    for (const pid_t process : sleepers()) {
        ::kill(process, SIGKILL);
    }
}

TEST_F(WorkerProcesses, AForkedScriptAnswersOnce) {
    EXPECT_EQ(call("fork_and_return"), "parent");
    EXPECT_EQ(call("same"), "data");
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(WorkerProcesses, AForkedScriptDoesNotHoldACallWhoseProcessEnded) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call("fork_and_end"), "no bytes");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_EQ(receiver.reports.at(0), "error: Python worker ended in the call: exit status 4");
    EXPECT_LE(mark.processes().size(), 2U);
}

TEST_F(WorkerProcesses, WhatIsNoWorkerAndSaysSoIsRefused) {
    // Greets, and answers with what is no frame.
    const std::string program = installation.folder().write("bin/liar",
                                                            "#!/bin/bash\n"
                                                            "printf 'peek\\0\\0\\0\\0' >&3\n"
                                                            "head -c 1 <&4 >/dev/null\n"
                                                            "head -c 4096 /dev/urandom >&4\n"
                                                            "sleep 1000\n");
    ::chmod(program.c_str(), 0755);
    PGM_PYTHON_SETTINGS::set_worker(program);
    EXPECT_EQ(call("same"), "no bytes");
    EXPECT_EQ(receiver.reports.at(0),
              "error: Python worker ended in the call: what it sent cannot be read");
    mark.end_all();
    PGM_PYTHON_SETTINGS::set_worker(worker_program);
    EXPECT_EQ(call("same"), "data");
}

TEST_F(WorkerProcesses, AWorkerThatDiesBeforeItGreetsIsReplacedWithoutAWord) {
    // The second that is started, which is the first that waits, lives for a while and says
    // nothing.
    const std::string starts = installation.folder().path() + "/starts";
    const std::string program = installation.folder().write(
        "bin/second_dies", "#!/bin/sh\necho >>" + starts + "\n[ $(wc -l <" + starts +
                               ") = 2 ] && { sleep 0.5; exit 1; }\nexec " + worker_program +
                               " \"$@\"\n");
    ::chmod(program.c_str(), 0755);
    PGM_PYTHON_SETTINGS::set_worker(program);
    EXPECT_EQ(call("same"), "data");
    EXPECT_EQ(call("same"), "data");
    EXPECT_EQ(receiver.reports, REPORTS());
}

TEST_F(WorkerProcesses, OfThreadsThatPrepareAWorkerAtOnceOneDoes) {
    const std::string starts = installation.folder().path() + "/starts";
    const std::string program =
        installation.folder().write("bin/counted", "#!/bin/sh\necho start >>" + starts + "\nexec " +
                                                       worker_program + " \"$@\"\n");
    ::chmod(program.c_str(), 0755);
    const std::string surroundings = surroundings_of_process();
    constexpr int rounds = 5;
    for (int round = 0; round < rounds; ++round) {
        std::array<std::thread, 8> threads;
        for (std::thread& thread : threads) {
            thread = std::thread([&] { prepare_worker(program, surroundings); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        const TAKEN_WORKER taken = take_worker(program, surroundings, false);
        EXPECT_TRUE(taken.was_waiting);
        EXPECT_TRUE(taken.process && taken.process->greets());
    }
    const std::string lines = content_of(starts);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), rounds);
}

// How many seconds a call takes that the time limit ends.
class LimitedCall : public WorkerProcesses {
protected:
    double seconds_of_call(const std::string& program, double limit) {
        ::chmod(program.c_str(), 0755);
        PGM_PYTHON_SETTINGS::set_worker(program);
        PGM_PYTHON_SETTINGS::set_call_timeout(limit);
        receiver.reports.clear();
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(call("same"), "no bytes");
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
        EXPECT_EQ(receiver.reports.size(), 2U);
        EXPECT_EQ(
            receiver.reports.at(0).find("error: Python worker ended in the call: time limit of "),
            0U);
        EXPECT_EQ(receiver.reports.at(1),
                  "error 20351: Fail to execute function same in file bits");
        return seconds.count();
    }
};

TEST_F(LimitedCall, EndsSoonAfterItsLimitThoughItsProgramDoesNotGreet) {
    const std::string program =
        installation.folder().write("bin/silent", "#!/bin/sh\nexec sleep 1000\n");
    const double seconds = seconds_of_call(program, 0.5);
    EXPECT_GE(seconds, 0.5);
    EXPECT_LT(seconds, 4);
    EXPECT_TRUE(mark.is_gone());
}

TEST_F(LimitedCall, HasOneLimitThoughItsWorkerIsReplaced) {
    // The first that is started serves, the second dies as the call waits for it, and the third,
    // which takes its place, is silent.
    const std::string starts = installation.folder().path() + "/starts";
    const std::string program = installation.folder().write(
        "bin/replaced", "#!/bin/sh\necho >>" + starts + "\ncase $(wc -l <" + starts +
                            ") in\n1) exec " + worker_program +
                            " \"$@\";;\n2) sleep 2.5; exit 1;;\n*) exec sleep 1000;;\nesac\n");
    ::chmod(program.c_str(), 0755);
    PGM_PYTHON_SETTINGS::set_worker(program);
    EXPECT_EQ(call("same"), "data");
    const double seconds = seconds_of_call(program, 3);
    EXPECT_GE(seconds, 3);
    EXPECT_LT(seconds, 5);  // 6 with a limit of its own for each
    mark.end_all();
}

TEST_F(WorkerProcesses, ALocaleThatChangedSinceTheStartIsTheScripts) {
    const std::string before = std::setlocale(LC_ALL, nullptr);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(call("locale"), "C");
    for (const char* const other : {"C.UTF-8", "C"}) {
        if (std::setlocale(LC_ALL, other) != nullptr) {
            EXPECT_EQ(call("locale"), other);
        }
    }
    std::setlocale(LC_ALL, before.c_str());
}

TEST_F(WorkerProcesses, TheTimeLimitHoldsForAProgramThatDoesNotRead) {
    const std::string program = installation.folder().write(
        "bin/deaf", "#!/bin/bash\nprintf 'peek\\0\\0\\0\\0' >&3\nexec sleep 1000\n");
    ::chmod(program.c_str(), 0755);
    PGM_PYTHON_SETTINGS::set_worker(program);
    PGM_PYTHON_SETTINGS::set_call_timeout(0.5);
    EXPECT_EQ(call("same", std::string(std::size_t{64} << 20, 'x')), "no bytes");
    EXPECT_EQ(receiver.reports.at(0),
              "error: Python worker ended in the call: time limit of 0.5 seconds");
    mark.end_all();  // the one that waits, too
}

// ---- Programs that greet as a worker does and then say what no worker says.

class LyingWorkers : public WorkerProcesses {
protected:
    class FRAMES : public FRAME_STREAM {
    public:
        explicit FRAMES(std::initializer_list<FRAME_TYPE> types) {
            for (const FRAME_TYPE type : types) {
                add(type);
            }
        }
        FRAMES& add(FRAME_TYPE type, const std::string& text = "", bool flag = false) {
            WORKER_EVENT event;
            event.type = type;
            event.number = type == FRAME_TYPE::line ? MSG_TYPE_ERROR : 0;
            event.text = text;
            event.flag = flag;
            write_event(*this, event);
            return *this;
        }
        bool read(void* /*buffer*/, std::size_t /*size*/) override { return false; }
        bool write(const std::vector<FRAME_PART>& parts) override {
            for (const FRAME_PART& part : parts) {
                if (part.size > 0) {
                    bytes.append(static_cast<const char*>(part.data), part.size);
                }
            }
            return true;
        }
        std::string bytes;
    };

    LyingWorkers() { PGM_PYTHON_SETTINGS::set_call_timeout(20); }

    ~LyingWorkers() override { mark.end_all(); }

    // Workers say this from now on, and go on to say the second, without end.
    void say(const FRAMES& frames, const std::string& without_end = "") {
        // Another program each time: none that waits is one of it.
        const std::string number = std::to_string(++m_programs);

        const std::string once = installation.folder().write("bin/once" + number, frames.bytes);
        const std::string on = installation.folder().write("bin/on" + number, without_end);
        const std::string program = installation.folder().write(
            "bin/liar" + number,
            "#!/bin/bash\n"
            "exec >/dev/null 2>&1\n"
            "printf 'peek\\0\\0\\0\\0' >&3\n"
            // Ends when the host wants that.
            "{ cat >/dev/null; kill -9 $$; } <&3 3>&- 4>&- &\n"
            "exec 3>&-\n"
            "cat <&4 >/dev/null &\n"
            "cat " +
                once + " >&4\n" + "while [ -s " + on + " ]; do cat " + on +
                "; done >&4 2>/dev/null\n"
                "exec sleep 1000\n");
        ::chmod(program.c_str(), 0755);
        PGM_PYTHON_SETTINGS::set_worker(program);
    }

    // How the call of a bridge ends whose worker does that.
    std::string end_of(const BRIDGE& bridge) {
        receiver.reports.clear();
        BRIDGE_CALL bridge_call(bridge, script, "same");
        EXPECT_FALSE(bridge_call.run(ANSWER_FORM::KIND::ignored).success);
        const std::string start = "error: Python worker ended in the call: ";
        for (const std::string& report : receiver.reports) {
            if (report.compare(0, start.size(), start) == 0) {
                return report.substr(start.size());
            }
        }
        return "no such line";
    }

    const std::string refused = "what it sent cannot be read";
    const BRIDGE plain = BRIDGE(90);
    const BRIDGE early = BRIDGE(91).with_early_back_channel();
    const BRIDGE late = BRIDGE(92).with_late_back_channel();

private:
    int m_programs = 0;
};

TEST_F(LyingWorkers, AListenerStartsAndEndsOnlyWhereOneIsDue) {
    const THREADS_BEFORE threads_before;
    say(FRAMES({FRAME_TYPE::taken, FRAME_TYPE::start_back_channel, FRAME_TYPE::complete}));
    EXPECT_EQ(end_of(plain), refused);
    EXPECT_EQ(end_of(early), refused);
    say(FRAMES(
        {FRAME_TYPE::taken, FRAME_TYPE::start_back_channel, FRAME_TYPE::start_back_channel}));
    EXPECT_EQ(end_of(late), refused);
    say(FRAMES({FRAME_TYPE::taken, FRAME_TYPE::complete}));
    for (const BRIDGE& bridge : {plain, early, late}) {
        EXPECT_EQ(end_of(bridge), refused);
    }
    EXPECT_TRUE(threads_before.are_back());
}

TEST_F(LyingWorkers, AHostIsNotEndedWithoutAnInternalError) {
    say(FRAMES({FRAME_TYPE::taken, FRAME_TYPE::fatal_error}));
    EXPECT_EQ(end_of(plain), refused);
    receiver.returns_from_internal_errors = true;
    say(FRAMES({FRAME_TYPE::taken, FRAME_TYPE::internal_error, FRAME_TYPE::line,
                FRAME_TYPE::fatal_error}));
    EXPECT_EQ(end_of(plain), refused);
}

TEST_F(LyingWorkers, WhatIsSaidOnceIsNotSaidAgain) {
    const FRAMES taken({FRAME_TYPE::taken});
    say(taken, taken.bytes);
    EXPECT_EQ(end_of(plain), refused);
    say(taken, FRAMES({}).add(FRAME_TYPE::stage, "bits").bytes);
    EXPECT_EQ(end_of(plain), refused);
    say(FRAMES({FRAME_TYPE::taken}).add(FRAME_TYPE::stage, "bits"),
        FRAMES({}).add(FRAME_TYPE::stage, "bits", true).bytes);
    EXPECT_EQ(end_of(plain), refused);
    say(FRAMES({FRAME_TYPE::line}));
    EXPECT_EQ(end_of(plain), refused);
}

TEST_F(LyingWorkers, TheTimeLimitHoldsForOneWhoNeverStops) {
    PGM_PYTHON_SETTINGS::set_call_timeout(1);
    FRAMES lines({});
    for (int count = 0; count < 1000; ++count) {
        lines.add(FRAME_TYPE::line);
    }
    say(FRAMES({FRAME_TYPE::taken}), lines.bytes);
    EXPECT_EQ(end_of(plain), "time limit of 1 seconds");
}

}  // namespace
