#include <gtest/gtest.h>

#include <new>
#include <utility>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
#include "tests/support.h"

namespace {

typedef std::vector<std::string> REPORTS;

const char usage[] =
    "error: No argument is specified.\n"
    "     1) If you want to execute a script, there must be at least one argument specified as "
    "python file script\n"
    "     2) If you want to run in command mode, first argument must be \"-c\", followed by "
    "command(s)";

class Runner : public testing::Test {
protected:
    // Runs with the arguments, and checks that the caller's pointers are all in place afterwards.
    bool run(const std::vector<std::string>& arguments) {
        std::vector<const char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        const std::vector<const char*> given = argv;
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        bool success = false;
        std::string thrown;
        try {
            success = PGM_PYTHON_MGR::run_python_file(static_cast<int>(argv.size()), argv.data());
        } catch (const INTERNAL_ERROR_THROWN& error) {
            thrown = MSG_RECEIVER::to_text(error.error);
        }
        output = testing::internal::GetCapturedStdout();
        errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(argv, given);
        before.check();
        if (!thrown.empty()) {
            EXPECT_EQ(receiver.reports.back(), thrown);
        }
        return success;
    }

    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
    std::string output;
    std::string errors;
};

TEST_F(Runner, WithoutArgumentsTheUsageIsPrinted) {
    const char* none[] = {nullptr};
    EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(0, none));
    EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(-1, none));
    EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(1, nullptr));
    EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(1, none));
    EXPECT_EQ(receiver.reports, (REPORTS{usage, usage, usage, usage}));
}

TEST_F(Runner, CommandModeNeedsACommand) {
    EXPECT_FALSE(run({"-c"}));
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: This is command mode, command(s) must be specified"}));
}

TEST_F(Runner, ACommandIsRun) {
    EXPECT_TRUE(run({"-c", "x = 1\nprint(x + 1)"}));
    EXPECT_EQ(output, "2\n");
    EXPECT_EQ(errors, "");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, OnlyTheFirstCommandIsRun) {
    EXPECT_TRUE(run({"-c", "print('one')", "print('two')"}));
    EXPECT_EQ(output, "one\n");
}

TEST_F(Runner, ACommandSeesTheSuitesFoldersButNoArguments) {
    EXPECT_TRUE(run({"-c",
                     "import os, sys\nprint(sys.path[:3], getattr(sys, 'argv', [])[1:])\n"
                     "print(os.environ['PGM_PYTHON_BIN_DIR'])",
                     "further"}));
    EXPECT_EQ(output, "['" + installation.unshipped() + "/python/source', '" +
                          installation.common() + "/python/source', '" + installation.common() +
                          "/python'] []\n" + installation.bin() + "\n");
}

TEST_F(Runner, ACommandHasNoBackChannel) {
    EXPECT_TRUE(run({"-c",
                     "import socket\n"
                     "try:\n"
                     "    socket.create_connection(('127.0.0.1', 57343))\n"
                     "    print('heard')\n"
                     "except OSError:\n"
                     "    print('unheard')"}));
    EXPECT_EQ(output, "unheard\n");
}

TEST_F(Runner, ACommandThatFailsShowsPythonsOwnOutputOnly) {
    EXPECT_FALSE(run({"-c", "1/0"}));
    EXPECT_EQ(errors,
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 1, in <module>\n"
              "ZeroDivisionError: division by zero\n");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, ACommandWithASyntaxErrorFails) {
    EXPECT_FALSE(run({"-c", "x ="}));
    EXPECT_NE(errors.find("SyntaxError: invalid syntax"), std::string::npos) << errors;
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, ACommandThatExitsEndsAsAMainProgramDoes) {
    EXPECT_TRUE(run({"-c", "import sys; sys.exit(0)"}));
    EXPECT_TRUE(run({"-c", "import sys; sys.exit()"}));
    EXPECT_EQ(errors, "");
    EXPECT_FALSE(run({"-c", "import sys; sys.exit(3)"}));
    EXPECT_EQ(errors, "");
    EXPECT_FALSE(run({"-c", "import sys; sys.exit('text')"}));
    EXPECT_EQ(errors, "text\n");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, OnlyExactlyDashCIsCommandMode) {
    EXPECT_FALSE(run({"-c ", "print(1)"}));
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Python script -c  doest not exist"}));
}

TEST_F(Runner, ACatalogueNameRunsTheDefaultScriptUnderItsFullPath) {
    const std::string path = installation.common_script("python/norvane_sign.py",
                                                        "import sys\nprint(__name__, sys.argv)\n");
    EXPECT_TRUE(run({"norvane_sign", "--a", "b c", ""}));
    EXPECT_EQ(output, "__main__ ['" + path + "', '--a', 'b c', '']\n");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, AScriptSeesTheSearchPathWithItsOwnFolderFirst) {
    const std::string path =
        installation.folder().write("own/tool.py",
                                    "import os, sys\nprint(sys.path[:4])\n"
                                    "print(os.environ['PGM_PYTHON_BIN_DIR'])\n");
    EXPECT_TRUE(run({path}));
    EXPECT_EQ(output, "['" + installation.folder().path() + "/own', '" + installation.unshipped() +
                          "/python/source', '" + installation.common() + "/python/source', '" +
                          installation.common() + "/python']\n" + installation.bin() + "\n");
}

TEST_F(Runner, AScriptMayBeCompiled) {
    const std::string path = installation.common_script(
        "python/compact_cert_sign.pyc", "import sys\nprint(__name__, sys.argv[1:])\n");
    EXPECT_TRUE(run({path, "x"}));
    EXPECT_EQ(output, "__main__ ['x']\n");
    EXPECT_TRUE(run({"compact_cert_sign", "y"}));
    EXPECT_EQ(output, "__main__ ['y']\n");
}

TEST_F(Runner, AFolderMayHoldBlanksAndLettersBeyondAscii) {
    const std::string path = installation.folder().write(
        "gr\xC3\xBC\xC3\x9F Gott/\xE2\x82\xAC tool.py", "import sys\nprint(ascii(sys.argv[1:]))\n");
    EXPECT_TRUE(run({path, "\xC3\xA4 \xE2\x82\xAC"}));
    EXPECT_EQ(output, "['\\xe4 \\u20ac']\n");
}

TEST_F(Runner, AnotherExtensionIsRefused) {
    installation.folder().write("tool.txt", "");
    for (const std::string& name :
         {std::string("tool.txt"), installation.folder().path() + "/tool.txt",
          std::string("norvane_sign.pyx"), std::string("tool.")}) {
        receiver.reports.clear();
        EXPECT_FALSE(run({name}));
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error: First argument " + name +
                           " must be Programmer default Python script name without extension or "
                           "Python script with extension of .py or .pyc"}));
    }
}

TEST_F(Runner, AnUnknownNameDoesNotExist) {
    EXPECT_FALSE(run({"unknown"}));
    EXPECT_FALSE(run({"missing.py", "x"}));
    EXPECT_FALSE(run({"norvane_sign"}));
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Python script unknown doest not exist",
                                         "error: Python script missing.py doest not exist",
                                         "error: Python script norvane_sign doest not exist"}));
}

TEST_F(Runner, AnExistingFileWithoutExtensionIsAnInternalError) {
    const std::string path = installation.folder().write("tool", "print('not run')\n");
    EXPECT_FALSE(run({path}));
    EXPECT_EQ(receiver.reports,
              (REPORTS{internal_error(
                  "Python script " + path + " must have extension of .py or .pyc", 1781)}));
    EXPECT_EQ(output, "");
}

TEST_F(Runner, AnEmptyNameIsAnInternalError) {
    EXPECT_FALSE(run({""}));
    EXPECT_EQ(receiver.reports, (REPORTS{internal_error("original_file.size()", 170)}));
}

TEST_F(Runner, AQuoteInAFolderIsReportedAndNothingIsRun) {
    const std::string path = installation.folder().write("tool.py", "print('not run')\n");
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "/x/\"y");
    EXPECT_FALSE(run({path}));
    EXPECT_EQ(receiver.reports, (REPORTS{internal_error("py_eval(setting.c_str())", 1754)}));
    EXPECT_EQ(output, "");
    receiver.reports.clear();
    EXPECT_FALSE(run({"-c", "print('not run')"}));
    EXPECT_EQ(receiver.reports, (REPORTS{internal_error("py_eval(setting.c_str())", 1754)}));
    EXPECT_EQ(output, "");
}

TEST_F(Runner, AScriptThatRaisesIsReportedWithItsReasons) {
    const std::string path =
        installation.folder().write("tool.py", std::string(send_function) +
                                                   "send('one !@#$^&*() zw\xC3\xB6lf'.encode())\n"
                                                   "raise ValueError('broken')\n");
    EXPECT_FALSE(run({path}));
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + path,
                                         "error 20353: one", "error 20353: zw\xC3\xB6lf"}));
    EXPECT_NE(errors.find("tool.py\", line 7, in <module>"), std::string::npos) << errors;
    EXPECT_NE(errors.find("ValueError: broken\n"), std::string::npos) << errors;
}

TEST_F(Runner, TheReasonsOfADefaultScriptFollowItsResolvedPath) {
    const std::string path = installation.common_script("python/norvane_sign.py", "1/0\n");
    EXPECT_FALSE(run({"norvane_sign"}));
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + path}));
}

TEST_F(Runner, TheTextOfASuccessfulScriptIsDiscarded) {
    const std::string path =
        installation.folder().write("tool.py", std::string(send_function) + "send(b'fine')\n");
    EXPECT_TRUE(run({path}));
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Runner, AScriptThatExitsEndsAsAMainProgramDoes) {
    struct ROW {
        const char* statement;
        bool success;
        const char* printed;
    };
    const std::string path = installation.folder().path() + "/tool.py";
    for (const ROW& row :
         {ROW{"sys.exit()", true, ""}, ROW{"sys.exit(0)", true, ""}, ROW{"sys.exit(3)", false, ""},
          ROW{"sys.exit('text')", false, "text\n"}, ROW{"raise SystemExit", true, ""}}) {
        receiver.reports.clear();
        installation.folder().write("tool.py", "import sys\n" + std::string(row.statement) + "\n");
        EXPECT_EQ(run({path}), row.success) << row.statement;
        EXPECT_EQ(errors, row.printed) << row.statement;
        EXPECT_EQ(receiver.reports,
                  row.success ? REPORTS{} : REPORTS{"error 20354: Fail to execute file " + path})
            << row.statement;
    }
}

TEST_F(Runner, AScriptWithASyntaxErrorIsReported) {
    const std::string path = installation.folder().write("tool.py", "x =\n");
    EXPECT_FALSE(run({path}));
    EXPECT_NE(errors.find("SyntaxError: invalid syntax"), std::string::npos) << errors;
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + path}));
}

TEST_F(Runner, TheListenerRunsBeforeTheInterpreterAndEndsBeforeItDoes) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    struct LOOKER : RECORDING_RECEIVER {
        void post(unsigned long number, const std::string& text) override {
            was_running = interpreter_is_running();
            RECORDING_RECEIVER::post(number, text);
        }
        void internal_error(const INTERNAL_ERROR& error) override {
            port_was_free = port_is_free();
            RECORDING_RECEIVER::internal_error(error);
        }
        bool was_running = false;
        bool port_was_free = true;
    } looker;
    const std::string path = installation.folder().write("tool.py", "1/0\n");
    const char* argv[] = {path.c_str()};
    testing::internal::CaptureStderr();
    EXPECT_FALSE(PGM_PYTHON_MGR::run_python_file(1, argv));
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(looker.was_running);
    const std::string without = installation.folder().write("tool", "");
    argv[0] = without.c_str();
    thrown_by([&] { PGM_PYTHON_MGR::run_python_file(1, argv); });
    EXPECT_FALSE(looker.port_was_free);
    EXPECT_EQ(argv[0], without.c_str());
}

TEST_F(Runner, TheListenerListensBeforeTheInterpreterStarts) {
    // Every interpreter imports this as it starts.
    installation.folder().write("site/sitecustomize.py",
                                "import _socket\n"
                                "channel = _socket.socket(_socket.AF_INET, _socket.SOCK_STREAM)\n"
                                "try:\n"
                                "    channel.connect(('127.0.0.1', 57343))\n"
                                "    channel.sendall(b'from the start')\n"
                                "except OSError:\n"
                                "    pass\n"
                                "channel.close()\n");
    const ENVIRONMENT_VALUE site("PYTHONPATH", (installation.folder().path() + "/site").c_str());
    const std::string path = installation.folder().write("tool.py", "1/0\n");
    EXPECT_FALSE(run({path}));
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + path,
                                         "error 20353: from the start"}));
}

TEST_F(Runner, WhatIsRefusedStartsNeitherInterpreterNorListener) {
    struct LOOKER : RECORDING_RECEIVER {
        void line(int type, const std::string& text) override {
            EXPECT_TRUE(port_is_free());
            EXPECT_FALSE(interpreter_is_running());
            RECORDING_RECEIVER::line(type, text);
        }
    } looker;
    // Every interpreter that starts writes.
    const ENVIRONMENT_VALUE loud("PYTHONPROFILEIMPORTTIME", "1");
    const std::string text = installation.folder().write("tool.txt", "");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-c"}, {"missing.py"}, {"unknown", "x"}, {text}}) {
        EXPECT_FALSE(run(arguments));
        EXPECT_EQ(errors, "") << arguments[0];
    }
    EXPECT_EQ(looker.reports.size(), 4U);
    EXPECT_TRUE(run({"-c", "pass"}));
    EXPECT_NE(errors.find("import time:"), std::string::npos) << errors;
}

TEST_F(Runner, DuringARunTheCallersFirstSlotHoldsTheResolvedPath) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    const std::string source =
        "import sys, test_hooks\n"
        "test_hooks.signal()\n"
        "print(sys.argv)\n";
    const CURRENT_FOLDER current(installation.folder().path());
    installation.folder().write("here/tool.py", source);
    const std::string catalogued = installation.common_script("python/norvane_sign.py", source);
    offer_script_hooks();
    for (const auto& names : {std::pair<std::string, std::string>("here/tool.py", "here/tool.py"),
                              std::pair<std::string, std::string>("norvane_sign", catalogued)}) {
        const char* argv[] = {names.first.c_str(), "x"};
        std::string slot;
        on_script_signal = [&] { slot = argv[0]; };
        testing::internal::CaptureStdout();
        EXPECT_TRUE(PGM_PYTHON_MGR::run_python_file(2, argv));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "['" + names.second + "', 'x']\n");
        EXPECT_EQ(slot, names.second);
        EXPECT_EQ(argv[0], names.first.c_str());
    }
    on_script_signal = nullptr;
}

#if !defined(_WIN32)

// Whether the next run of a main program throws.
bool run_throws = false;

}  // namespace

// The linker puts this one in the place of py_source_with_args.
extern "C" bool __real__Z19py_source_with_argsiPPKc(int argc, const char** argv);
extern "C" bool __wrap__Z19py_source_with_argsiPPKc(int argc, const char** argv) {
    if (run_throws) {
        throw std::bad_alloc();
    }
    return __real__Z19py_source_with_argsiPPKc(argc, argv);
}

namespace {

TEST_F(Runner, AnExceptionInARunIsAFailure) {
    SKIP_UNLESS_IN_PROCESS("nothing of this process runs there");
    const std::string path = installation.folder().write("tool.py", "print('run')\n");
    run_throws = true;
    EXPECT_FALSE(run({path}));
    run_throws = false;
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20354: Fail to execute file " + path}));
    EXPECT_EQ(output, "");
    EXPECT_TRUE(run({path}));
    EXPECT_EQ(output, "run\n");
}

#endif

TEST_F(Runner, AScriptThatChangesItsArgumentsDoesNotTouchTheCallers) {
    const std::string path =
        installation.folder().write("tool.py", "import sys\nsys.argv[0] = 'x'\ndel sys.argv[1]\n");
    EXPECT_TRUE(run({path, "one"}));
}

typedef Runner RunnerDeathTest;

TEST_F(RunnerDeathTest, WithoutAReceiverAnExistingFileWithoutExtensionAborts) {
    const std::string path = installation.folder().write("tool", "");
    MSG_RECEIVER::set(nullptr);
    const char* argv[] = {path.c_str()};
    EXPECT_DEATH(PGM_PYTHON_MGR::run_python_file(1, argv),
                 "/tool must have extension of .py or .pyc \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 1781\\]\n");
}

}  // namespace
