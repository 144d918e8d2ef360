#include "zel/zel_py/zel_py.h"

#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support.h"
#include "zel/zel_py/py_reference.h"
#if defined(_WIN32)
#include "tests/pythons_runtime_windows.h"
#endif

namespace {

// What every test runs under, whatever the one who starts it has set.
class ZelPy : public testing::Test {
protected:
    ZelPy() { std::setlocale(LC_CTYPE, "C"); }

private:
    ENVIRONMENT_VALUE m_encoding{"PYTHONIOENCODING", "utf-8"};
    ENVIRONMENT_VALUE m_buffered{"PYTHONUNBUFFERED", nullptr};
};

class PyEval : public ZelPy {};
class PySourceWithArgs : public ZelPy {};
class PyPrintError : public ZelPy {};
class Session : public ZelPy {};
class BrokenPipes : public ZelPy {};
class Streams : public ZelPy {};

struct SESSION {
    SESSION() {
        has_run = true;
        py_initialize();
    }
    ~SESSION() { py_finalize(); }
    SESSION(const SESSION&) = delete;
    SESSION& operator=(const SESSION&) = delete;

    static inline bool has_run = false;
};

// str() of an expression in the main module of the running session.
std::string text_of(const char* expression) {
    PyObject* const names = PyModule_GetDict(PyImport_AddModule("__main__"));
    const PY_REFERENCE value =
        PY_REFERENCE::owned(PyRun_String(expression, Py_eval_input, names, names));
    const PY_REFERENCE text = PY_REFERENCE::owned(value ? PyObject_Str(value.get()) : nullptr);
    if (!text) {
        PyErr_Clear();
        return "no value";
    }
    return PyUnicode_AsUTF8(text.get());
}

// Runs a statement that must fail; what it prints to standard error.
std::string failure_of(const std::string& statement) {
    return written_by([&] {
        EXPECT_FALSE(py_eval(statement.c_str())) << statement;
        EXPECT_EQ(PyErr_Occurred(), nullptr);
    });
}

bool run_file(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    return py_source_with_args(static_cast<int>(arguments.size()), argv.data());
}

// Runs a file that must fail; what it prints to standard error.
std::string failure_of_file(const std::string& file) {
    return written_by([&] {
        EXPECT_FALSE(run_file({file})) << file;
        EXPECT_EQ(PyErr_Occurred(), nullptr);
    });
}

bool starts_with(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

const char division_by_zero[] =
    "Traceback (most recent call last):\n"
    "  File \"<string>\", line 1, in <module>\n"
    "ZeroDivisionError: division by zero\n";

// ---- py_eval

TEST_F(PyEval, AStatementThatRunsToItsEndGivesTrue) {
    const SESSION session;
    EXPECT_EQ(written_by([] {
                  EXPECT_TRUE(py_eval("x = 41"));
                  EXPECT_TRUE(py_eval(""));
                  EXPECT_TRUE(py_eval("# nothing to do"));
              }),
              "");
    EXPECT_EQ(text_of("x"), "41");
}

TEST_F(PyEval, SeveralStatementsRunInOrder) {
    const SESSION session;
    EXPECT_TRUE(
        py_eval("text = 'a'\n"
                "for letter in 'bc':\n"
                "    text += letter\n"
                "\n"
                "text += 'd'; text += 'e'"));
    EXPECT_EQ(text_of("text"), "abcde");
}

TEST_F(PyEval, StatementsRunInTheMainModule) {
    const SESSION session;
    EXPECT_TRUE(py_eval("import sys\nname = __name__"));
    EXPECT_TRUE(py_eval("same = sys.modules['__main__'].name"));
    EXPECT_EQ(text_of("same"), "__main__");
}

TEST_F(PyEval, AStatementMayComeAgainAndAgain) {
    const SESSION session;
    EXPECT_TRUE(py_eval("count = 0"));
    for (int round = 0; round < 3; ++round) {
        for (int step = 0; step < 150; ++step) {
            EXPECT_TRUE(py_eval(("count += " + std::to_string(step)).c_str()));
        }
        EXPECT_NE(written_by([] {
                      EXPECT_FALSE(py_eval("count += unknown"));
                  }).find("NameError: name 'unknown' is not defined"),
                  std::string::npos);
    }
    EXPECT_TRUE(py_eval("assert count == 3 * sum(range(150)), count"));
}

#if PY_VERSION_HEX >= 0x03080000
TEST_F(PyEval, BuiltinsAreThereAgainAfterTheirNameWasDeleted) {
    const SESSION session;
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(py_eval("assert len('text') == 4"));
        EXPECT_TRUE(py_eval("del __builtins__"));
    }
}
#endif

TEST_F(PyEval, AnExceptionIsPrintedAsPythonPrintsIt) {
    const SESSION session;
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
    EXPECT_EQ(failure_of("def f():\n"
                         "    raise ValueError('a bad value')\n"
                         "f()"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 3, in <module>\n"
              "  File \"<string>\", line 2, in f\n"
              "ValueError: a bad value\n");
    EXPECT_EQ(failure_of("raise KeyboardInterrupt"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 1, in <module>\n"
              "KeyboardInterrupt\n");
    EXPECT_EQ(failure_of("try:\n"
                         "    raise KeyError('first')\n"
                         "except KeyError as first:\n"
                         "    raise ValueError('second') from first"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 2, in <module>\n"
              "KeyError: 'first'\n"
              "\n"
              "The above exception was the direct cause of the following exception:\n"
              "\n"
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 4, in <module>\n"
              "ValueError: second\n");
}

TEST_F(PyEval, WhatRanBeforeTheExceptionHolds) {
    const SESSION session;
    EXPECT_EQ(failure_of("before = 7\nraise OSError('no')\nafter = 8"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 2, in <module>\n"
              "OSError: no\n");
    EXPECT_EQ(text_of("before"), "7");
    EXPECT_EQ(text_of("'after' in globals()"), "False");
}

TEST_F(PyEval, ASyntaxErrorRunsNothing) {
    const SESSION session;
    const std::string printed = failure_of("early = 1\nlate = = 2");
    EXPECT_TRUE(starts_with(printed, "  File \"<string>\", line 2\n    late = = 2\n")) << printed;
    EXPECT_TRUE(ends_with(printed, "\nSyntaxError: invalid syntax\n")) << printed;
    EXPECT_EQ(text_of("'early' in globals()"), "False");
}

TEST_F(PyEval, InvalidUtf8IsASyntaxError) {
    const SESSION session;
    const std::string printed = failure_of("x = '\xFF'");
    EXPECT_TRUE(contains(printed, "SyntaxError: ")) << printed;
    EXPECT_TRUE(py_eval("x = 'gr\xC3\xBC\xC3\x9F'"));
    EXPECT_EQ(text_of("len(x)"), "4");
}

TEST_F(PyEval, AnExceptionWithoutATextOfItsOwnIsPrintedAllTheSame) {
    const SESSION session;
    const std::string printed = failure_of(
        "class Mute(Exception):\n"
        "    def __str__(self):\n"
        "        raise ValueError('no text')\n"
        "raise Mute()");
    EXPECT_TRUE(contains(printed, "line 4, in <module>\n")) << printed;
    EXPECT_TRUE(contains(printed, "Mute: <exception str() failed>\n")) << printed;
}

TEST_F(PyEval, EndlessRecursionIsAnExceptionLikeAnyOther) {
    const SESSION session;
    const std::string printed = failure_of("def f():\n    f()\nf()");
    EXPECT_TRUE(contains(printed, "\nRecursionError: maximum recursion depth exceeded"));
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(PyEval, StandardOutputIsFlushedBeforeATraceback) {
    const SESSION session;
    testing::internal::CaptureStdout();
    EXPECT_EQ(failure_of("print('before'); 1/0"), division_by_zero);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "before\n");
}

// ---- sys.exit

struct EXIT_FORM {
    const char* statement;
    bool success;
    const char* printed;
};

const EXIT_FORM exit_forms[] = {
    {"sys.exit()", true, ""},
    {"sys.exit(None)", true, ""},
    {"sys.exit(0)", true, ""},
    {"sys.exit(False)", true, ""},
    {"raise SystemExit", true, ""},
    {"raise SystemExit()", true, ""},
    {"sys.exit(3)", false, ""},
    {"sys.exit(-1)", false, ""},
    {"sys.exit(256)", false, ""},
    {"sys.exit(True)", false, ""},
    {"sys.exit(2 ** 32)", false, ""},
    {"sys.exit(2 ** 64)", false, ""},
    {"sys.exit(-10 ** 100)", false, ""},
    {"sys.exit('a text')", false, "a text\n"},
    {"sys.exit('')", false, "\n"},
    {"sys.exit('two\\nlines')", false, "two\nlines\n"},
    {"sys.exit('gr\\u00fc\\u00df')", false, "gr\xC3\xBC\xC3\x9F\n"},
    {"sys.exit('100%s')", false, "100%s\n"},
    {"sys.exit('x' * 3)", false, "xxx\n"},
    {"sys.exit(0.0)", false, "0.0\n"},
    {"sys.exit([])", false, "[]\n"},
    {"sys.exit((1, 'b'))", false, "(1, 'b')\n"},
    {"sys.exit(b'bytes')", false, "b'bytes'\n"},
    {"raise SystemExit(1, 2)", false, "(1, 2)\n"},
    {"exit_class = type('E', (SystemExit,), {})\nraise exit_class(0)", true, ""},
    {"exit_class = type('E', (SystemExit,), {})\nraise exit_class('x')", false, "x\n"},
    {"def f():\n    try:\n        sys.exit('inner')\n    finally:\n        pass\nf()", false,
     "inner\n"},
    {"try:\n    1/0\nexcept ZeroDivisionError:\n    sys.exit('later')", false, "later\n"},
};

TEST_F(PyEval, AnExitEndsTheStatementAndNotTheProcess) {
    const SESSION session;
    ASSERT_TRUE(py_eval("import sys"));
    for (const EXIT_FORM& form : exit_forms) {
        bool success = !form.success;
        const std::string printed = written_by([&] { success = py_eval(form.statement); });
        EXPECT_EQ(success, form.success) << form.statement;
        EXPECT_EQ(printed, form.printed) << form.statement;
        EXPECT_EQ(PyErr_Occurred(), nullptr) << form.statement;
    }
}

TEST_F(PyEval, NothingRunsAfterAnExit) {
    const SESSION session;
    EXPECT_TRUE(py_eval("import sys\nsys.exit(0)\nafter = 1"));
    EXPECT_EQ(text_of("'after' in globals()"), "False");
}

TEST_F(PyEval, AnExitTextThatCannotBeMadeIsAnEmptyLine) {
    const SESSION session;
    EXPECT_EQ(failure_of("import sys\n"
                         "class Mute:\n"
                         "    def __str__(self):\n"
                         "        raise ValueError('no text')\n"
                         "sys.exit(Mute())"),
              "\n");
    EXPECT_EQ(failure_of("class Leaving:\n"
                         "    def __str__(self):\n"
                         "        sys.exit(4)\n"
                         "sys.exit(Leaving())"),
              "\n");
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(PyEval, AnExitThatHidesItsStatusIsAFailureWithItsOwnText) {
    const SESSION session;
    EXPECT_EQ(failure_of("class Hiding(SystemExit):\n"
                         "    @property\n"
                         "    def code(self):\n"
                         "        raise ValueError('hidden')\n"
                         "raise Hiding('hiding')"),
              "hiding\n");
}

TEST_F(PyEval, AnExitTextMayReplaceTheStreamItIsPrintedTo) {
    const SESSION session;
    EXPECT_EQ(failure_of("import sys\n"
                         "written = []\n"
                         "class Stream:\n"
                         "    def write(self, text):\n"
                         "        written.append(text)\n"
                         "    def flush(self):\n"
                         "        sys.stderr = sys.__stderr__\n"
                         "class Text:\n"
                         "    def __str__(self):\n"
                         "        sys.stderr = Stream()\n"
                         "        return 'swapped'\n"
                         "sys.stderr = Stream()\n"
                         "sys.exit(Text())"),
              "");
    EXPECT_EQ(text_of("written"), "['swapped', '\\n']");
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

// ---- sys.excepthook

TEST_F(PyEval, AnExcepthookPrintsInsteadOfPython) {
    const SESSION session;
    EXPECT_TRUE(
        py_eval("import sys\n"
                "def hook(kind, value, trace):\n"
                "    sys.stderr.write('%s|%s|%d\\n' % (kind.__name__, value, trace.tb_lineno))\n"
                "sys.excepthook = hook"));
    EXPECT_EQ(failure_of("\n1/0"), "ZeroDivisionError|division by zero|2\n");
    EXPECT_EQ(failure_of("sys.exit('left')"), "left\n");
}

TEST_F(PyEval, WhatAnExcepthookThatFailsWasGivenIsPrinted) {
    const SESSION session;
    ASSERT_TRUE(py_eval("import sys"));
    for (const char* const hook :
         {"lambda kind, value, trace: missing", "lambda kind, value, trace: sys.exit(0)",
          "lambda kind, value, trace: sys.exit('hook')", "lambda: None", "None", "3"}) {
        ASSERT_TRUE(py_eval((std::string("sys.excepthook = ") + hook).c_str()));
        const std::string printed = failure_of("1/0");
        EXPECT_EQ(printed.rfind("Error in sys.excepthook:\n", 0), 0U) << hook << "\n" << printed;
        EXPECT_TRUE(
            ends_with(printed, std::string("\nOriginal exception was:\n") + division_by_zero))
            << hook << "\n"
            << printed;
    }
    ASSERT_TRUE(py_eval("del sys.excepthook"));
    EXPECT_EQ(failure_of("1/0"), std::string("sys.excepthook is missing\n") + division_by_zero);
}

TEST_F(PyEval, APrintedExceptionIsPythonsLastOne) {
    const SESSION session;
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
    ASSERT_TRUE(py_eval("import sys"));
    EXPECT_EQ(text_of("sys.last_type.__name__"), "ZeroDivisionError");
    EXPECT_EQ(text_of("sys.last_value"), "division by zero");
    EXPECT_EQ(text_of("sys.last_traceback is sys.last_value.__traceback__"), "True");
    EXPECT_EQ(text_of("getattr(sys, 'last_exc', sys.last_value) is sys.last_value"), "True");
    EXPECT_EQ(text_of("hasattr(sys, 'last_exc') == (sys.version_info >= (3, 12))"), "True");
    // An exit is none.
    EXPECT_FALSE(py_eval("sys.exit(3)"));
    EXPECT_EQ(text_of("sys.last_type.__name__"), "ZeroDivisionError");
}

TEST_F(PyEval, TextIsUtf8WhateverACodingCookieSays) {
    const SESSION session;
    EXPECT_TRUE(py_eval("# -*- coding: latin-1 -*-\nletter = '\xC3\xA4'"));
    EXPECT_EQ(text_of("letter == chr(0xE4)"), "True");
    EXPECT_TRUE(py_eval("# -*- coding: no-such-coding -*-\nletter = 'x'"));
}

TEST_F(PyEval, AnExcepthookMayTakeItselfOut) {
    const SESSION session;
    EXPECT_TRUE(
        py_eval("import sys\n"
                "class Hook:\n"
                "    def __call__(self, kind, value, trace):\n"
                "        sys.excepthook = sys.__excepthook__\n"
                "        sys.stderr.write('once\\n')\n"
                "sys.excepthook = Hook()"));
    EXPECT_EQ(failure_of("1/0"), "once\n");
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

// ---- py_print_error

TEST_F(PyPrintError, APendingExceptionIsPrintedAndCleared) {
    const SESSION session;
    EXPECT_EQ(written_by([] {
                  PyErr_SetString(PyExc_ValueError, "a bad value");
                  py_print_error();
                  EXPECT_EQ(PyErr_Occurred(), nullptr);
              }),
              "ValueError: a bad value\n");
    EXPECT_EQ(written_by([] {
                  PyErr_SetNone(PyExc_ValueError);
                  py_print_error();
              }),
              "ValueError\n");
}

TEST_F(PyPrintError, AnExcepthookGetsTheExceptionItself) {
    const SESSION session;
    EXPECT_TRUE(
        py_eval("import sys\n"
                "def hook(kind, value, trace):\n"
                "    sys.stderr.write('%s %s %s' % (type(value) is kind, value.args, trace))\n"
                "sys.excepthook = hook"));
    EXPECT_EQ(written_by([] {
                  PyErr_SetString(PyExc_ValueError, "a bad value");
                  py_print_error();
              }),
              "True ('a bad value',) None");
}

TEST_F(PyPrintError, APendingExitIsPrintedLikeAnyOther) {
    const SESSION session;
    EXPECT_TRUE(py_eval("import sys\nsys.excepthook = lambda *all: sys.stderr.write('hook')"));
    EXPECT_EQ(written_by([] {
                  PyErr_SetString(PyExc_SystemExit, "out");
                  py_print_error();
                  EXPECT_EQ(PyErr_Occurred(), nullptr);
              }),
              "SystemExit: out\n");
    const PY_REFERENCE status = PY_REFERENCE::owned(PyLong_FromLong(3));
    EXPECT_EQ(written_by([&] {
                  PyErr_SetObject(PyExc_SystemExit, status.get());
                  py_print_error();
              }),
              "SystemExit: 3\n");
}

// ---- standard streams that scripts change

TEST_F(Streams, WithoutAnErrorStreamAnExitTextIsPrintedAllTheSame) {
    const SESSION session;
    EXPECT_EQ(failure_of("import sys\nsys.stderr = None\nsys.exit('a text')"), "a text\n");
    EXPECT_EQ(failure_of("del sys.stderr\nsys.exit('100%s gr\\u00fc\\u00df')"),
              "100%s gr\xC3\xBC\xC3\x9F\n");
    EXPECT_EQ(failure_of("class Mute:\n"
                         "    def __str__(self):\n"
                         "        raise ValueError('no text')\n"
                         "sys.exit(Mute())"),
              "\n");
}

TEST_F(Streams, AClosedErrorStreamLosesOnlyWhatWasPrintedToIt) {
    {
        const SESSION session;
        EXPECT_FALSE(contains(failure_of("import sys\nsys.stderr.close()\n1/0"), "Traceback"));
        EXPECT_FALSE(contains(failure_of("sys.exit('a text')"), "a text"));
        EXPECT_TRUE(py_eval("sys.exit(0)"));
    }
    const SESSION session;
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(Streams, AMissingErrorStreamHurtsNothing) {
    {
        const SESSION session;
        EXPECT_EQ(failure_of("import sys\nsys.stderr = None\n1/0"), "");
        EXPECT_FALSE(contains(failure_of("del sys.stderr\n1/0"), "Traceback"));
    }
    const SESSION session;
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(Streams, AnErrorStreamOfTheScriptsOwnGetsTheTraceback) {
    const SESSION session;
    EXPECT_EQ(failure_of("import io, sys\nsys.stderr = io.StringIO()"
                         "\nsys.exit('a text')"),
              "");
    EXPECT_EQ(failure_of("1/0"), "");
    EXPECT_EQ(text_of("sys.stderr.getvalue()"), std::string("a text\n") + division_by_zero);
}

TEST_F(Streams, OnesThatRaiseOrExitHurtNothing) {
    {
        const SESSION session;
        testing::internal::CaptureStdout();
        ASSERT_TRUE(
            py_eval("import sys\n"
                    "class Leaving:\n"
                    "    def write(self, text): sys.exit(5)\n"
                    "    def flush(self): sys.exit(6)\n"
                    "sys.stdout = Leaving()"));
        EXPECT_EQ(failure_of("1/0"), division_by_zero);
        EXPECT_EQ(failure_of("sys.exit('a text')"), "a text\n");
        ASSERT_TRUE(py_eval("sys.stderr = Leaving()"));
        EXPECT_FALSE(contains(failure_of("1/0"), "Traceback"));
        EXPECT_FALSE(contains(failure_of("sys.exit('a text')"), "a text"));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        testing::internal::CaptureStderr();
    }
    testing::internal::GetCapturedStderr();
    const SESSION session;
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(Streams, AnErrorStreamMayReplaceItselfWhileItIsFlushed) {
    const SESSION session;
    EXPECT_EQ(failure_of("import sys\n"
                         "flushed = []\n"
                         "class Stream:\n"
                         "    def write(self, text): pass\n"
                         "    @property\n"
                         "    def flush(self):\n"
                         "        sys.stderr = sys.__stderr__\n"
                         "        return lambda: flushed.append(self)\n"
                         "sys.stderr = Stream()\n"
                         "1/0"),
              "");
    EXPECT_EQ(text_of("len(flushed)"), "1");
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(Streams, AnErrorStreamMayReplaceItselfWhileATracebackIsWritten) {
    const SESSION session;
    EXPECT_EQ(failure_of("import sys\n"
                         "written = []\n"
                         "class Stream:\n"
                         "    def write(self, text):\n"
                         "        sys.stderr = sys.__stderr__\n"
                         "        written.append(text)\n"
                         "sys.stderr = Stream()\n"
                         "1/0"),
              "");
    EXPECT_EQ(text_of("''.join(written)"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 8, in <module>\n"
              "ZeroDivisionError: division by zero\n");
    EXPECT_EQ(failure_of("1/0"), division_by_zero);
}

TEST_F(Streams, OnesThatScriptsCloseAreBackInTheNextSession) {
    {
        const SESSION session;
        EXPECT_TRUE(
            py_eval("import sys\n"
                    "sys.stdout.close()\n"
                    "sys.__stderr__.close()\n"
                    "sys.stdin = None\n"
                    "del sys.stdout"));
    }
    testing::internal::CaptureStdout();
    {
        const SESSION session;
        EXPECT_TRUE(py_eval("print('heard')"));
        EXPECT_EQ(failure_of("1/0"), division_by_zero);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "heard\n");
}

TEST_F(Streams, WhatWasPrintedIsThereAfterTheSession) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(written_by([] {
                  const SESSION session;
                  EXPECT_TRUE(
                      py_eval("import sys\n"
                              "sys.stdout.write('no line end')\n"
                              "sys.stderr.write('neither')"));
              }),
              "neither");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no line end");
}

// ---- py_source_with_args

const char noting_script[] =
    "import sys\n"
    "noted = [__name__, __file__, sys.argv]\n"
    "is_main = sys.modules['__main__'].noted is noted\n";

std::string note(const std::string& file, const std::string& more_arguments) {
    return "['__main__', '" + file + "', ['" + file + "'" + more_arguments + "]]";
}

TEST_F(PySourceWithArgs, ASourceFileRunsAsTheMainProgram) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("tool.py", noting_script);
    const SESSION session;
    EXPECT_EQ(written_by([&] {
                  EXPECT_TRUE(run_file({file, "--key=a b", "", "-c", "100%", "'"}));
              }),
              "");
    EXPECT_EQ(text_of("noted"), note(file, ", '--key=a b', '', '-c', '100%', \"'\""));
    EXPECT_EQ(text_of("is_main"), "True");
}

TEST_F(PySourceWithArgs, ACompiledFileRunsAsTheMainProgram) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.path() + "/tool.pyc";
    const std::string upper_case = folder.path() + "/OTHER.PYC";
    write_compiled(file, noting_script);
    write_compiled(upper_case, noting_script);
    const SESSION session;
    EXPECT_TRUE(run_file({file, "x"}));
    EXPECT_EQ(text_of("noted"), note(file, ", 'x'"));
    EXPECT_EQ(text_of("is_main"), "True");
    EXPECT_TRUE(run_file({upper_case}));
    EXPECT_EQ(text_of("noted"), note(upper_case, ""));
}

TEST_F(PySourceWithArgs, PathsAndArgumentsMayHoldLettersOfAnyLanguage) {
    const ENVIRONMENT_VALUE locale("LC_ALL", "C.UTF-8");
    const std::string name = "gr\xC3\xBC\xC3\x9F_\xE2\x98\x83";
    const TEMPORARY_FOLDER folder(name);
    const std::string file = folder.write(name + ".py", noting_script);
    const SESSION session;
    EXPECT_TRUE(run_file({file, name}));
    EXPECT_EQ(text_of("noted"), note(file, ", '" + name + "'"));
    EXPECT_EQ(text_of("len(noted[2][1])"), "6");
}

TEST_F(PySourceWithArgs, AnyOtherExtensionIsSource) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("tool.PY", noting_script);
    const std::string bare = folder.write("pyc", noting_script);
    const SESSION session;
    EXPECT_TRUE(run_file({file}));
    EXPECT_EQ(text_of("noted"), note(file, ""));
    EXPECT_TRUE(run_file({bare}));
    EXPECT_EQ(text_of("noted"), note(bare, ""));
}

TEST_F(PySourceWithArgs, ARelativeFileIsFoundFromTheCurrentFolder) {
    const TEMPORARY_FOLDER folder;
    folder.write("sub/tool.py", noting_script);
    const CURRENT_FOLDER here(folder.path());
    const SESSION session;
    EXPECT_TRUE(run_file({"sub/tool.py", "x"}));
    EXPECT_EQ(text_of("noted"), note("sub/tool.py", ", 'x'"));
}

TEST_F(PySourceWithArgs, TheSourcesOwnEncodingHolds) {
    const TEMPORARY_FOLDER folder;
    const std::string cookie =
        folder.write("cookie.py", "# -*- coding: latin-1 -*-\ntext = '\xE9'\n");
    const std::string mark = folder.write("mark.py", "\xEF\xBB\xBFtext = '\xC3\xAA'\n");
    const std::string plain = folder.write("plain.py", "text = '\xC3\xAB'\r\nend = 1");
    const SESSION session;
    EXPECT_TRUE(run_file({cookie}));
    EXPECT_EQ(text_of("ascii(text)"), "'\\xe9'");
    EXPECT_TRUE(run_file({mark}));
    EXPECT_EQ(text_of("ascii(text)"), "'\\xea'");
    EXPECT_TRUE(run_file({plain}));
    EXPECT_EQ(text_of("ascii(text)"), "'\\xeb'");
    EXPECT_EQ(text_of("end"), "1");
}

TEST_F(PySourceWithArgs, AnEmptyFileSucceeds) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("empty.py", "");
    const SESSION session;
    EXPECT_EQ(written_by([&] { EXPECT_TRUE(run_file({file})); }), "");
}

TEST_F(PySourceWithArgs, SourceThatCannotBeReadIsASyntaxError) {
    const TEMPORARY_FOLDER folder;
    const std::string cookie = folder.write("cookie.py", "# coding: nonesuch\nx = 1\n");
    const std::string bytes = folder.write("bytes.py", "x = '\xFF'\n");
    const SESSION session;
    EXPECT_TRUE(contains(failure_of_file(cookie), "SyntaxError: "));
    EXPECT_TRUE(contains(failure_of_file(bytes), "SyntaxError: "));
}

TEST_F(PySourceWithArgs, AZeroByteInTheSourceIsAnError) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("zero.py", std::string("x = 1\n\0y = 2\n", 13));
    const SESSION session;
    const std::string printed = failure_of_file(file);
    EXPECT_TRUE(ends_with(printed, "Error: source code string cannot contain null bytes\n"))
        << printed;
    EXPECT_EQ(text_of("'x' in globals()"), "False");
}

TEST_F(PySourceWithArgs, ASyntaxErrorNamesFileAndLine) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("wrong.py", "x = 1\ny = = 2\n");
    const SESSION session;
    const std::string printed = failure_of_file(file);
    EXPECT_TRUE(contains(printed, "  File \"" + file + "\", line 2\n    y = = 2\n")) << printed;
    EXPECT_TRUE(ends_with(printed, "\nSyntaxError: invalid syntax\n")) << printed;
    EXPECT_EQ(text_of("'x' in globals()"), "False");
}

TEST_F(PySourceWithArgs, AnExceptionIsPrintedWithTheScriptsOwnLines) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("bad.py", "x = 1\nraise ValueError('a bad value')\n");
    const SESSION session;
    EXPECT_EQ(failure_of_file(file),
              "Traceback (most recent call last):\n"
              "  File \"" +
                  file +
                  "\", line 2, in <module>\n"
                  "    raise ValueError('a bad value')\n"
                  "ValueError: a bad value\n");
    EXPECT_EQ(text_of("x"), "1");
}

TEST_F(PySourceWithArgs, AnExitEndsTheScriptAndNotTheProcess) {
    const TEMPORARY_FOLDER folder;
    const SESSION session;
    int number = 0;
    for (const EXIT_FORM& form : exit_forms) {
        const std::string file = folder.write(
            std::to_string(++number) + ".py",
            std::string("import sys\nreached = 1\n") + form.statement + "\nreached = 2\n");
        bool success = !form.success;
        const std::string printed = written_by([&] { success = run_file({file}); });
        EXPECT_EQ(success, form.success) << form.statement;
        EXPECT_EQ(printed, form.printed) << form.statement;
        EXPECT_EQ(text_of("reached"), "1") << form.statement;
    }
}

TEST_F(PySourceWithArgs, ACompiledFileMayExitToo) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.path() + "/leaving.pyc";
    write_compiled(file, "import sys\nsys.exit(sys.argv[1])\n");
    const SESSION session;
    EXPECT_EQ(written_by([&] { EXPECT_FALSE(run_file({file, "a text"})); }), "a text\n");
}

TEST_F(PySourceWithArgs, AMissingFileIsAnException) {
    const TEMPORARY_FOLDER folder;
    const SESSION session;
    for (const char* const name : {"/none.py", "/none.pyc"}) {
        const std::string file = folder.path() + name;
        const std::string printed = failure_of_file(file);
        EXPECT_TRUE(ends_with(
            printed, "\nFileNotFoundError: [Errno 2] No such file or directory: '" + file + "'\n"))
            << printed;
    }
    EXPECT_NE(failure_of_file(""), "");
}

TEST_F(PySourceWithArgs, AFolderIsNoScript) {
    const TEMPORARY_FOLDER folder;
    const std::string sub_folder = folder.make_folder("folder.py");
    const SESSION session;
    const std::string printed = failure_of_file(sub_folder);
    EXPECT_TRUE(contains(printed, "Error: [Errno ")) << printed;
    EXPECT_TRUE(ends_with(printed, "'" + sub_folder + "'\n")) << printed;
}

TEST_F(PySourceWithArgs, CompiledCodeThatIsNoneIsAnException) {
    const TEMPORARY_FOLDER folder;
    const std::string good = folder.path() + "/good.pyc";
    write_compiled(good, "x = 1\n");
    const std::string header = folder.read("good.pyc").substr(0, 16);
    const std::string magic = folder.write("magic.pyc", "garbage, and more of it");
    const std::string empty = folder.write("empty.pyc", "");
    const std::string cut = folder.write("cut.pyc", header.substr(0, 8));
    const std::string no_body = folder.write("no_body.pyc", header);
    const std::string number = folder.write("number.pyc", header + std::string("i\1\0\0\0", 5));
    const SESSION session;
    std::string printed = failure_of_file(magic);
    EXPECT_TRUE(ends_with(printed, "\nImportError: bad magic number in '__main__': b'garb'\n"))
        << printed;
    printed = failure_of_file(empty);
    EXPECT_TRUE(contains(printed, "\nImportError: bad magic number in '__main__': b''\n"))
        << printed;
    EXPECT_TRUE(contains(failure_of_file(cut), "\nEOFError: "));
    EXPECT_TRUE(contains(failure_of_file(no_body), "\nEOFError: "));
    printed = failure_of_file(number);
    EXPECT_TRUE(contains(printed, "\nImportError: Non-code object in ")) << printed;
    EXPECT_TRUE(run_file({good}));
}

TEST_F(PySourceWithArgs, WithoutAFileItFailsQuietly) {
    const char* nothing[] = {nullptr};
    const char* argv[] = {"x.py", nullptr};
    const SESSION session;
    EXPECT_EQ(written_by([&] {
                  EXPECT_FALSE(py_source_with_args(0, argv));
                  EXPECT_FALSE(py_source_with_args(-1, argv));
                  EXPECT_FALSE(py_source_with_args(1, nullptr));
                  EXPECT_FALSE(py_source_with_args(1, nothing));
              }),
              "");
}

TEST_F(PySourceWithArgs, TheEntriesEndAtANullOne) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("tool.py", noting_script);
    const char* argv[] = {file.c_str(), "x", nullptr, "y"};
    const SESSION session;
    EXPECT_TRUE(py_source_with_args(4, argv));
    EXPECT_EQ(text_of("noted"), note(file, ", 'x'"));
}

TEST_F(PySourceWithArgs, ItsNamesAreLeftInTheMainModule) {
    const TEMPORARY_FOLDER folder;
    const std::string first = folder.write("first.py", "x = 20\n");
    const std::string second = folder.write("second.py", "import sys\nx += 1\n");
    const SESSION session;
    EXPECT_TRUE(run_file({first}));
    EXPECT_TRUE(run_file({second}));
    EXPECT_TRUE(py_eval("x *= 2"));
    EXPECT_EQ(text_of("x"), "42");
}

// ---- sessions

TEST_F(Session, LivesFromInitializeToFinalize) {
    EXPECT_FALSE(interpreter_is_running());
    py_initialize();
    EXPECT_TRUE(interpreter_is_running());
    py_finalize();
    EXPECT_FALSE(interpreter_is_running());
}

TEST_F(Session, EachStartsAfresh) {
    const THREADS_BEFORE threads;
    int handles = 0;
    constexpr int rounds = 20;
    constexpr int first_rounds = 3;
    for (int round = 0; round < rounds; ++round) {
        {
            const SESSION session;
            EXPECT_EQ(text_of("'mark' in globals()"), "False") << round;
            EXPECT_EQ(text_of("'json' in __import__('sys').modules"), "False") << round;
            ASSERT_TRUE(
                py_eval("import json, os, sys\n"
                        "mark = json.loads('[1, {\"a\": 2}]')\n"
                        "sys.path.insert(0, 'nowhere')\n"
                        "sys.dont_write_bytecode = True"));
            EXPECT_EQ(text_of("mark"), "[1, {'a': 2}]") << round;
            EXPECT_EQ(text_of("sys.path.count('nowhere')"), "1") << round;
            EXPECT_EQ(failure_of("1/0"), division_by_zero) << round;
        }
        EXPECT_FALSE(interpreter_is_running());
        if (round == first_rounds - 1) {
            handles = count_of_open_handles();
        }
    }
    const int handles_left = count_of_open_handles() - handles;
    EXPECT_EQ(handles_left,
              handles_left_by_sessions(rounds - first_rounds, "import json, os, sys"));
    EXPECT_TRUE(threads.are_back());
}

TEST_F(Session, APendingExceptionDoesNotOutliveIt) {
    EXPECT_EQ(written_by([] {
                  const SESSION session;
                  PyErr_SetString(PyExc_ValueError, "pending");
              }),
              "");
    const SESSION session;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(Session, AnExitHandlerThatExitsDoesNotEndTheProcess) {
    const TEMPORARY_FOLDER folder;
    written_by([&] {
        const SESSION session;
        EXPECT_TRUE(py_eval(("import atexit, sys\n"
                             "def first(): open('" +
                             folder.path() +
                             "/ran', 'w').close()\n"
                             "atexit.register(first)\n"
                             "atexit.register(sys.exit, 3)\n"
                             "atexit.register(sys.exit, 'a text')\n"
                             "atexit.register(lambda: 1/0)")
                                .c_str()));
    });
    EXPECT_FALSE(interpreter_is_running());
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(folder.path() + "/ran")));
    const SESSION session;
    EXPECT_TRUE(py_eval("x = 1"));
}

TEST_F(Session, AThreadOfTheScriptIsWaitedFor) {
    const TEMPORARY_FOLDER folder;
    const THREADS_BEFORE threads;
    {
        const SESSION session;
        EXPECT_TRUE(py_eval(("import threading, time\n"
                             "def work():\n"
                             "    time.sleep(0.3)\n"
                             "    with open('" +
                             folder.path() +
                             "/done', 'w') as file:\n"
                             "        file.write('at the end')\n"
                             "threading.Thread(target=work).start()")
                                .c_str()));
        EXPECT_EQ(folder.read("done"), "");
    }
    EXPECT_EQ(folder.read("done"), "at the end");
    EXPECT_TRUE(threads.are_back());
}

TEST_F(Session, AThreadThatExitsEndsOnlyItself) {
    {
        const SESSION session;
        EXPECT_EQ(written_by([] {
                      EXPECT_TRUE(
                          py_eval("import sys, threading\n"
                                  "thread = threading.Thread(target=sys.exit, args=(3,))\n"
                                  "thread.start()\n"
                                  "thread.join()\n"
                                  "after = 1"));
                  }),
                  "");
        EXPECT_EQ(text_of("after"), "1");
    }
    EXPECT_FALSE(interpreter_is_running());
}

TEST_F(Session, TheCharacterLocaleIsBackAfterwards) {
    const ENVIRONMENT_VALUE locale("LC_ALL", "C.UTF-8");
    { const SESSION session; }
    EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
}

TEST_F(Session, ACharacterLocaleThatTheHostHasSetIsBackAfterwards) {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        GTEST_SKIP() << "the C library has no locale of this name";
    }
    const ENVIRONMENT_VALUE locale("LC_ALL", "C");
    { const SESSION session; }
    EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C.UTF-8");
}

TEST_F(Session, ALocaleThatAScriptSetsIsUndone) {
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) {
        GTEST_SKIP() << "the C library has no locale of this name";
    }
    const std::string before = std::setlocale(LC_ALL, nullptr);
    {
        const SESSION session;
        EXPECT_TRUE(py_eval("import locale\nlocale.setlocale(locale.LC_ALL, 'C')"));
        EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
    }
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
}

TEST_F(Session, TheEnvironmentStaysTheHosts) {
    const ENVIRONMENT_VALUE all("LC_ALL", nullptr);
    const ENVIRONMENT_VALUE lang("LANG", nullptr);
    const ENVIRONMENT_VALUE characters("LC_CTYPE", nullptr);
    { const SESSION session; }
    EXPECT_EQ(std::getenv("LC_CTYPE"), nullptr);
    EXPECT_EQ(std::getenv("LC_ALL"), nullptr);
}

// Where the linked Python lives.
std::string python_prefix() {
    const SESSION session;
    return text_of("__import__('sys').base_prefix");
}

// ---- an interpreter that is kept from session to session

TEST_F(Session, ASuspendedInterpreterIsResumedOnAnyThread) {
    EXPECT_FALSE(py_resume());
    py_initialize();
    EXPECT_TRUE(py_owns_interpreter());
    EXPECT_TRUE(py_eval("there = 1"));
    py_suspend();
    EXPECT_FALSE(py_owns_interpreter());
    EXPECT_NE(Py_IsInitialized(), 0);
    for (int round = 0; round < 3; ++round) {
        std::thread([] {
            ASSERT_TRUE(py_resume());
            EXPECT_TRUE(py_owns_interpreter());
            EXPECT_TRUE(py_eval("there += 1"));
            py_suspend();
        }).join();
    }
    ASSERT_TRUE(py_resume());
    EXPECT_EQ(text_of("there"), "4");
    py_finalize();
    EXPECT_FALSE(interpreter_is_running());
    EXPECT_FALSE(py_resume());
}

TEST_F(Session, ASuspendedInterpreterMayBeFinalizedOnAnotherThread) {
    for (int round = 0; round < 3; ++round) {
        py_initialize();
        EXPECT_TRUE(py_eval("import threading"));
        py_suspend();
        testing::internal::CaptureStderr();
        std::thread([] {
            ASSERT_TRUE(py_resume());
            EXPECT_TRUE(
                py_eval("import atexit, sys\n"
                        "atexit.register(sys.stderr.write, 'ended\\n')"));
            py_finalize();
        }).join();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ended\n");
        EXPECT_FALSE(interpreter_is_running());
    }
}

// An interpreter of the host's own, started without the library.
class HOST_INTERPRETER {
public:
    HOST_INTERPRETER() : m_home("PYTHONHOME", python_prefix().c_str()) { Py_InitializeEx(0); }
    ~HOST_INTERPRETER() { Py_FinalizeEx(); }
    HOST_INTERPRETER(const HOST_INTERPRETER&) = delete;
    HOST_INTERPRETER& operator=(const HOST_INTERPRETER&) = delete;

private:
    ENVIRONMENT_VALUE m_home;
};

TEST_F(Session, AHostsOwnInterpreterIsLeftRunning) {
    {
        const HOST_INTERPRETER host;
        {
            const SESSION session;
            EXPECT_TRUE(py_eval("kept = 'by the host'"));
            EXPECT_EQ(failure_of("1/0"), division_by_zero);
            EXPECT_FALSE(py_eval("import sys\nsys.exit(3)"));
        }
        EXPECT_TRUE(interpreter_is_running());
        EXPECT_EQ(PyGILState_Check(), 1);
        EXPECT_EQ(text_of("kept"), "by the host");
        {
            const SESSION session;
            EXPECT_EQ(text_of("kept"), "by the host");
        }
        EXPECT_TRUE(interpreter_is_running());
    }
    EXPECT_FALSE(interpreter_is_running());
    const SESSION session;
    EXPECT_EQ(text_of("'kept' in globals()"), "False");
}

TEST_F(Session, TheLockOfAHostsInterpreterIsTakenAndGivenBack) {
    const HOST_INTERPRETER host;
    PyThreadState* const state = PyEval_SaveThread();
    EXPECT_EQ(PyGILState_Check(), 0);
    {
        const SESSION session;
        EXPECT_EQ(PyGILState_Check(), 1);
        EXPECT_TRUE(py_eval("x = 1"));
    }
    EXPECT_EQ(PyGILState_Check(), 0);
    EXPECT_NE(Py_IsInitialized(), 0);
    PyEval_RestoreThread(state);
}

// ---- sessions that cannot start

const char cannot_start[] = "internal error: Python interpreter cannot be started: ";
const char no_library[] =
    "internal error: Python interpreter cannot be started: PYTHONHOME leads to no standard library "
    "of this version [ZEL_PY, zel/zel_py/zel_py, line 61]";

class HomeLeadsNowhere : public ZelPy {
protected:
    void SetUp() override {
        if (std::filesystem::path::preferred_separator == '\\') {
            GTEST_SKIP() << "Python looks beside itself and into the registry, too";
        }
    }

    const ENVIRONMENT_VALUE m_path{"PYTHONPATH", nullptr};
    const TEMPORARY_FOLDER m_folder;
    const std::string m_no_home = m_folder.path() + "/nowhere";
};
class HomeLeadsNowhereDeathTest : public HomeLeadsNowhere {};

TEST_F(HomeLeadsNowhereDeathTest, TheProcessEndsUnlessTheReceiverThrows) {
    const ENVIRONMENT_VALUE home("PYTHONHOME", m_no_home.c_str());
    EXPECT_DEATH(py_initialize(), std::string("^") + cannot_start);
    EXPECT_DEATH(
        {
            RECORDING_RECEIVER receiver;
            receiver.returns_from_internal_errors = true;
            py_initialize();
        },
        "");
}

TEST_F(HomeLeadsNowhere, ASessionIsAnInternalErrorAndTheNextOneStarts) {
    const ENVIRONMENT_VALUE locale("LC_ALL", "C.UTF-8");
    const std::string prefix = python_prefix();
    const std::string other_version = m_folder.path() + "/other";
    m_folder.make_folder("other/lib/python3.6/encodings");
    m_folder.write("other/bin/python3", "");
    for (const std::string& text :
         {m_no_home, m_no_home + ":" + prefix, m_folder.path(), other_version,
          std::string("no\xFF"), std::string(100000, 'x')}) {
        EXPECT_EQ(written_by([&] {
                      RECORDING_RECEIVER receiver;
                      const ENVIRONMENT_VALUE home("PYTHONHOME", text.c_str());
                      EXPECT_EQ(thrown_by([] { py_initialize(); }), no_library) << text;
                      EXPECT_EQ(receiver.reports, std::vector<std::string>{no_library}) << text;
                  }),
                  "");
        EXPECT_FALSE(interpreter_is_running());
        EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
        {
            const SESSION session;
            EXPECT_TRUE(py_eval("import json"));
            EXPECT_EQ(failure_of("1/0"), division_by_zero);
            EXPECT_EQ(text_of("__import__('sys').getfilesystemencoding()"), "utf-8");
        }
        EXPECT_FALSE(interpreter_is_running());
    }
}

TEST_F(HomeLeadsNowhere, OneThatLeadsSomewhereIsTaken) {
    const std::string prefix = python_prefix();
    for (const std::string& text : {std::string(), prefix, prefix + "/", prefix + ":" + prefix}) {
        const ENVIRONMENT_VALUE home("PYTHONHOME", text.c_str());
        const SESSION session;
        EXPECT_TRUE(py_eval("import json")) << text;
        EXPECT_EQ(failure_of("1/0"), division_by_zero) << text;
    }
}

TEST_F(HomeLeadsNowhereDeathTest, WhereThePathsLeadCountsToo) {
    // In a process of its own: Python keeps such a home for later sessions.
    EXPECT_EXIT(
        {
            py_initialize();
            const std::string library =
                text_of("__import__('os').path.dirname(__import__('os').__file__)");
            py_finalize();
            const ENVIRONMENT_VALUE home("PYTHONHOME", m_no_home.c_str());
            const ENVIRONMENT_VALUE path("PYTHONPATH", library.c_str());
            py_initialize();
            const bool found = py_eval("import json");
            py_finalize();
            std::_Exit(found ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

class StartDeathTest : public ZelPy {
    const ENVIRONMENT_VALUE m_path{"PYTHONPATH", nullptr};
};

TEST_F(StartDeathTest, OneThatPythonGivesUpIsAnInternalErrorAndGivesBackTheLocale) {
#if PY_VERSION_HEX < 0x03080000
    GTEST_SKIP() << "Python 3.7 ends the process itself";
#else
    if (SESSION::has_run) {
        GTEST_SKIP() << "Python keeps the paths of the first session in a process";
    }
    const ENVIRONMENT_VALUE locale("LC_ALL", "C.UTF-8");
    const TEMPORARY_FOLDER folder;
    folder.make_folder("lib/python" + std::to_string(PY_MAJOR_VERSION) + "." +
                       std::to_string(PY_MINOR_VERSION) + "/encodings");
    const ENVIRONMENT_VALUE home("PYTHONHOME", folder.path().c_str());
    // In a process of its own: no later start succeeds there.
    EXPECT_EXIT(
        {
            RECORDING_RECEIVER receiver;
            const std::string thrown = thrown_by([] { py_initialize(); });
            const bool expected = starts_with(thrown, cannot_start) && thrown != no_library &&
                                  ends_with(thrown, " [ZEL_PY, zel/zel_py/zel_py, line 61]") &&
                                  receiver.reports == std::vector<std::string>{thrown} &&
                                  !interpreter_is_running() &&
                                  std::string(std::setlocale(LC_CTYPE, nullptr)) == "C";
            std::_Exit(expected ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
#endif
}

// ---- broken pipes

TEST_F(BrokenPipes, AScriptThatWritesToAClosedPipeGetsAnException) {
    const SESSION session;
    EXPECT_TRUE(
        py_eval("import os\n"
                "reader, writer = os.pipe()\n"
                "os.close(reader)\n"
                "try:\n"
                "    os.write(writer, b'x')\n"
                "    caught = 'nothing'\n"
                "except OSError as error:\n"
                "    caught = 'an error'\n"
                "os.close(writer)"));
    EXPECT_EQ(text_of("caught"), "an error");
}

using SIGNAL_HANDLER = void (*)(int);

#if defined(SIGPIPE)

SIGNAL_HANDLER broken_pipe_handler() {
    const SIGNAL_HANDLER handler = std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGPIPE, handler);
    return handler;
}

void handler_of_the_host(int) {}

TEST_F(BrokenPipes, TheSignalIsIgnoredInASessionAndAsItWasAfterwards) {
    std::signal(SIGPIPE, SIG_DFL);
    for (int round = 0; round < 2; ++round) {
        {
            const SESSION session;
            EXPECT_EQ(broken_pipe_handler(), SIG_IGN);
        }
        EXPECT_EQ(broken_pipe_handler(), SIG_DFL);
    }
}

TEST_F(Session, SignalHandlersThatAScriptSetsAreUndone) {
    struct sigaction with_flags = {};
    with_flags.sa_handler = handler_of_the_host;
    with_flags.sa_flags = SA_RESTART;
    sigaddset(&with_flags.sa_mask, SIGUSR2);
    struct sigaction usr1_before = {};
    ASSERT_EQ(::sigaction(SIGUSR1, &with_flags, &usr1_before), 0);
    const SIGNAL_HANDLER interrupt_before = std::signal(SIGINT, SIG_DFL);
    const SIGNAL_HANDLER end_before = std::signal(SIGTERM, SIG_DFL);
    {
        const SESSION session;
        EXPECT_TRUE(
            py_eval("import signal\n"
                    "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                    "signal.signal(signal.SIGINT, signal.SIG_IGN)\n"
                    "signal.signal(signal.SIGUSR1, lambda *_: None)"));
    }
    EXPECT_EQ(std::signal(SIGTERM, end_before), SIG_DFL);
    EXPECT_EQ(std::signal(SIGINT, interrupt_before), SIG_DFL);
    struct sigaction after = {};
    ASSERT_EQ(::sigaction(SIGUSR1, &usr1_before, &after), 0);
    EXPECT_EQ(after.sa_handler, handler_of_the_host);
    EXPECT_NE(after.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR2), 1);
}

TEST_F(BrokenPipes, WhatTheHostHasSetForTheSignalStays) {
    for (const SIGNAL_HANDLER handler :
         {static_cast<SIGNAL_HANDLER>(handler_of_the_host), SIG_IGN}) {
        std::signal(SIGPIPE, handler);
        {
            const SESSION session;
            EXPECT_EQ(broken_pipe_handler(), handler);
        }
        EXPECT_EQ(broken_pipe_handler(), handler);
    }
    std::signal(SIGPIPE, SIG_DFL);
}

#else

TEST_F(Session, SignalHandlersThatAScriptSetsAreUndone) {
    const auto handled_by = [](int signal) {
        const auto set = of_pythons_runtime<SIGNAL_HANDLER(int, SIGNAL_HANDLER)>("signal");
        const SIGNAL_HANDLER handler = set(signal, SIG_IGN);
        set(signal, handler);
        return handler;
    };
    const SIGNAL_HANDLER before = handled_by(SIGTERM);
    {
        const SESSION session;
        EXPECT_TRUE(
            py_eval("import signal\n"
                    "signal.signal(signal.SIGTERM, signal.SIG_IGN)"));
        EXPECT_EQ(handled_by(SIGTERM), SIG_IGN);
    }
    EXPECT_EQ(handled_by(SIGTERM), before);
}

TEST_F(BrokenPipes, TheSignalIsIgnoredInASessionAndAsItWasAfterwards) {
    GTEST_SKIP() << "the platform has no such signal";
}

TEST_F(BrokenPipes, WhatTheHostHasSetForTheSignalStays) {
    GTEST_SKIP() << "the platform has no such signal";
}

#endif

}  // namespace
