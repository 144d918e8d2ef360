#include "pgm/pgm_python/interpreter_session.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cwchar>
#include <thread>

#include "pgm/pgm_python/pgm_python_settings.h"
#include "tests/pgm_python_mgr_test.h"
#include "tests/support.h"
#include "zel/zel_py/zel_py.h"

namespace {

// Releases a wide vector at the end of the scope.
struct WIDE {
    int count = -1;
    wchar_t** slots = nullptr;

    WIDE(const std::string& first, const std::vector<std::string>& args)
        : slots(PGM_PYTHON_MGR_TEST::convert_char_to_wchar_t(first, args, count)) {}
    ~WIDE() { PGM_PYTHON_MGR_TEST::delete_wchar_t(count, slots); }
};

// The repr of a Python expression in the running session.
std::string evaluated(const std::string& expression) {
    PyObject* const names = PyModule_GetDict(PyImport_AddModule("__main__"));
    const PY_REFERENCE value =
        PY_REFERENCE::owned(PyRun_String(expression.c_str(), Py_eval_input, names, names));
    if (!value) {
        PyErr_Print();
        return "no value";
    }
    const PY_REFERENCE text = PY_REFERENCE::owned(PyObject_Str(value.get()));
    return PyUnicode_AsUTF8(text.get());
}

TEST(WideVector, AnEmptyFirstTextWithoutArgumentsGivesNullAndZero) {
    const WIDE wide("", {});
    EXPECT_EQ(wide.slots, nullptr);
    EXPECT_EQ(wide.count, 0);
}

TEST(WideVector, AnEmptyFirstTextIsDropped) {
    const WIDE wide("", {"x"});
    ASSERT_EQ(wide.count, 1);
    EXPECT_STREQ(wide.slots[0], L"x");
}

TEST(WideVector, TheFirstTextComesBeforeTheArguments) {
    const WIDE wide("a.py", {"--x= y", "z"});
    ASSERT_EQ(wide.count, 3);
    EXPECT_STREQ(wide.slots[0], L"a.py");
    EXPECT_STREQ(wide.slots[1], L"--x= y");
    EXPECT_STREQ(wide.slots[2], L"z");
}

TEST(WideVector, TextsAreConvertedInTheProcessLocale) {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr &&
        std::setlocale(LC_CTYPE, ".UTF-8") == nullptr) {
        GTEST_SKIP() << "the C library has no UTF-8 locale";
    }
    const WIDE wide("gr\xC3\xBC\xC3\x9F.py", {"\xE2\x82\xAC"});
    ASSERT_EQ(wide.count, 2);
    EXPECT_STREQ(wide.slots[0], L"gr\u00FC\u00DF.py");
    EXPECT_STREQ(wide.slots[1], L"\u20AC");
}

TEST(WideVector, BytesThatCannotBeConvertedLeaveAZeroTerminatedText) {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        GTEST_SKIP() << "the C library has no UTF-8 locale";
    }
    const WIDE wide("", {"ab\xFFz"});
    ASSERT_EQ(wide.count, 1);
    EXPECT_LE(std::wcslen(wide.slots[0]), 4U);
}

TEST(WideVector, AnEmptyArgumentIsAnInternalErrorWithItsIndex) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] {
                  WIDE("a.py", {"x", ""});
              }),
              internal_error("Argument at index 1 cannot be empty string", 1680));
    EXPECT_EQ(thrown_by([] { WIDE("", {""}); }),
              internal_error("Argument at index 0 cannot be empty string", 1680));
}

TEST(WideVector, TheConversionGoesOnAfterTheReportOfAnEmptyArgument) {
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    const WIDE wide("a.py", {"x", "", "", "y"});
    EXPECT_EQ(receiver.reports, std::vector<std::string>{internal_error(
                                    "Argument at index 1 cannot be empty string", 1680)});
    ASSERT_EQ(wide.count, 5);
    EXPECT_STREQ(wide.slots[1], L"x");
    EXPECT_STREQ(wide.slots[2], L"");
    EXPECT_STREQ(wide.slots[4], L"y");
}

TEST(WideVector, ACountMismatchIsReportedAndTheArrayIsReturnedAllTheSame) {
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    wchar_t** const slots = fill_wide_vector("a", {"b"}, 3);
    EXPECT_EQ(receiver.reports, std::vector<std::string>{internal_error("index == wcharc", 1705)});
    ASSERT_NE(slots, nullptr);
    EXPECT_STREQ(slots[0], L"a");
    EXPECT_STREQ(slots[1], L"b");
    EXPECT_EQ(slots[2], nullptr);
    PGM_PYTHON_MGR_TEST::delete_wchar_t(2, slots);

    wchar_t** const too_few = fill_wide_vector("a", {"b"}, 1);
    EXPECT_EQ(receiver.reports.size(), 2U);
    PGM_PYTHON_MGR_TEST::delete_wchar_t(1, too_few);

    receiver.returns_from_internal_errors = false;
    EXPECT_EQ(thrown_by([] { fill_wide_vector("a", {"b"}, 3); }),
              internal_error("index == wcharc", 1705));
}

TEST(WideVector, ReleasingNullWithCountZeroDoesNothing) {
    PGM_PYTHON_MGR_TEST::delete_wchar_t(0, nullptr);
}

TEST(WideVector, ReleasingAVectorWithCountZeroIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    wchar_t* slot = nullptr;
    EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR_TEST::delete_wchar_t(0, &slot); }),
              internal_error("wcharv == NULL", 1735));
}

TEST(WideVector, ReleasingANullSlotIsAnInternalErrorAfterTheSlotsBeforeItAreReleased) {
    RECORDING_RECEIVER receiver;
    wchar_t** const slots = new wchar_t*[2]();
    slots[0] = new wchar_t[2]();
    EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR_TEST::delete_wchar_t(2, slots); }),
              internal_error("wcharv[index] != NULL", 1728));
    EXPECT_EQ(slots[0], nullptr);
    delete[] slots;
}

TEST(WideVector, ANegativeCountReleasesTheArrayOnly) {
    wchar_t text[] = L"mine";
    wchar_t** const slots = new wchar_t*[1];
    slots[0] = text;
    PGM_PYTHON_MGR_TEST::delete_wchar_t(-1, slots);
    EXPECT_STREQ(text, L"mine");
}

TEST(InterpreterSession, TheInterpreterLivesAsLongAsTheScope) {
    SKIP_UNLESS_FRESH("a kept interpreter outlives its sessions");
    EXPECT_FALSE(interpreter_is_running());
    {
        const INTERPRETER_SESSION session;
        EXPECT_TRUE(interpreter_is_running());
    }
    EXPECT_FALSE(interpreter_is_running());
}

TEST(InterpreterSession, KeptObjectsLiveUntilJustBeforeTheInterpreterIsFinalised) {
    testing::internal::CaptureStderr();
    {
        INTERPRETER_SESSION session;
        ASSERT_TRUE(
            py_eval("import sys\n"
                    "class Kept:\n"
                    "    def __del__(self):\n"
                    "        sys.stderr.write('dropped\\n')\n"));
        PyObject* const names = PyModule_GetDict(PyImport_AddModule("__main__"));
        session.keep(PY_REFERENCE::owned(PyRun_String("Kept()", Py_eval_input, names, names)));
        ASSERT_TRUE(py_eval("sys.stderr.write('kept\\n')"));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kept\ndropped\n");
}

TEST(InterpreterSession, OneThatIsAskedForWhileAnotherIsInForceIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    const std::string error = internal_error("Python session is in force already", 2011);
    const auto begin_another = [] { const INTERPRETER_SESSION another; };
    for (int round = 0; round < 2; ++round) {
        const INTERPRETER_SESSION session;
        ASSERT_TRUE(py_eval("x = 1"));
        EXPECT_EQ(thrown_by(begin_another), error);
        std::string of_thread;
        std::thread([&] { of_thread = thrown_by(begin_another); }).join();
        EXPECT_EQ(of_thread, error);
        EXPECT_EQ(thrown_by([] { PGM_PYTHON_SETTINGS::end_kept_interpreter(); }), error);
        // The one in force goes on.
        EXPECT_EQ(evaluated("x"), "1");
        EXPECT_EQ(PyGILState_Check(), 1);
    }
    begin_another();
}

TEST(InterpreterSession, OneOfAnUnknownKindIsAnInternalErrorAndTheNextOneStarts) {
    RECORDING_RECEIVER receiver;
    {
        const ENVIRONMENT_VALUE kind("PGM_PYTHON_CALLS", "Kept");
        EXPECT_EQ(thrown_by([] { const INTERPRETER_SESSION session; }),
                  internal_error("PGM_PYTHON_CALLS must be fresh, kept or worker, not Kept", 2001));
    }
    const INTERPRETER_SESSION session;
    EXPECT_TRUE(py_eval("x = 1"));
}

TEST(InterpreterSession, TheArgumentVectorIsExact) {
    WIDE_ARGUMENT_VECTOR arguments;
    INTERPRETER_SESSION session;
    arguments.set("/x/a b.py", {"--zky=", "two words", "'\"\\"});
    ASSERT_TRUE(py_eval("import sys"));
    EXPECT_EQ(evaluated("sys.argv"), "['/x/a b.py', '--zky=', 'two words', '\\'\"\\\\']");
}

TEST(InterpreterSession, TheArgumentVectorDoesNotTouchTheSearchPath) {
    WIDE_ARGUMENT_VECTOR arguments;
    INTERPRETER_SESSION session;
    ASSERT_TRUE(py_eval("import sys\nbefore = list(sys.path)"));
    arguments.set("/x/a.py", {});
    EXPECT_EQ(evaluated("sys.path == before"), "True");
}

TEST(SearchPath, TheFoldersComeFirstInTheirOrder) {
    const TEST_INSTALLATION installation;
    INTERPRETER_SESSION session;
    ASSERT_TRUE(py_eval("import sys\nbefore = list(sys.path)"));
    session.setup_system_path();
    EXPECT_EQ(evaluated("sys.path[0]"), installation.unshipped() + "/python/source");
    EXPECT_EQ(evaluated("sys.path[1]"), installation.common() + "/python/source");
    EXPECT_EQ(evaluated("sys.path[2]"), installation.common() + "/python");
    EXPECT_EQ(evaluated("sys.path[3:] == before"), "True");
}

TEST(SearchPath, ScriptsFindTheExecutableFolderInTheEnvironment) {
    const TEST_INSTALLATION installation;
    INTERPRETER_SESSION session;
    session.setup_system_path();
    EXPECT_EQ(evaluated("os.environ['PGM_PYTHON_BIN_DIR']"), installation.bin());
}

TEST(SearchPath, FoldersMayHoldBlanksAndLettersBeyondAscii) {
    const TEST_INSTALLATION installation("gr\xC3\xBC\xC3\x9F Gott \xE2\x82\xAC");
    INTERPRETER_SESSION session;
    session.setup_system_path();
    EXPECT_EQ(evaluated("sys.path[2]"), installation.common() + "/python");
    EXPECT_EQ(evaluated("os.environ['PGM_PYTHON_BIN_DIR']"), installation.bin());
}

TEST(SearchPath, TheScriptsOwnFolderComesFirst) {
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/tool.py", "");
    INTERPRETER_SESSION session;
    session.setup_system_path();
    EXPECT_EQ(session.setup_system_path(script), "tool");
    EXPECT_EQ(evaluated("sys.path[0]"), installation.common() + "/python");
    EXPECT_EQ(evaluated("sys.path[1]"), installation.unshipped() + "/python/source");
}

TEST(SearchPath, ARelativeScriptIsFoundFromTheCurrentFolder) {
    const TEMPORARY_FOLDER folder;
    folder.write("dir/tool.pyc", "");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(std::filesystem::u8path(folder.path()));
    {
        INTERPRETER_SESSION session;
        EXPECT_EQ(session.setup_system_path("dir/tool.pyc"), "tool");
        ASSERT_TRUE(py_eval("import sys"));
        EXPECT_EQ(evaluated("sys.path[0]"), folder.path() + "/dir");
    }
    std::filesystem::current_path(before);
}

TEST(SearchPath, TheModuleNameIsTheFileNameWithoutItsExtension) {
    const TEMPORARY_FOLDER folder;
    INTERPRETER_SESSION session;
    EXPECT_EQ(session.setup_system_path(folder.write("a.b.py", "")), "a.b");
    EXPECT_EQ(session.setup_system_path(folder.write("tool.PY", "")), "tool");
    EXPECT_EQ(session.setup_system_path(folder.write(".py", "")), "");
}

TEST(SearchPath, AScriptMustBeGiven) {
    RECORDING_RECEIVER receiver;
    INTERPRETER_SESSION session;
    EXPECT_EQ(thrown_by([&] { session.setup_system_path(""); }),
              internal_error("Python file must be specified", 1779));
}

TEST(SearchPath, AScriptMustHaveAPythonExtension) {
    const TEMPORARY_FOLDER folder;
    folder.write("tool.txt", "");
    folder.write("tool", "");
    RECORDING_RECEIVER receiver;
    INTERPRETER_SESSION session;
    for (const std::string& script : {folder.path() + "/tool.txt", folder.path() + "/tool"}) {
        EXPECT_EQ(thrown_by([&] { session.setup_system_path(script); }),
                  internal_error("Python script " + script + " must have extension of .py or .pyc",
                                 1781));
    }
}

TEST(SearchPath, AMissingScriptIsReportedByItsAbsolutePath) {
    const TEMPORARY_FOLDER folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(std::filesystem::u8path(folder.path()));
    RECORDING_RECEIVER receiver;
    {
        INTERPRETER_SESSION session;
        EXPECT_EQ(
            thrown_by([&] { session.setup_system_path("missing.py"); }),
            internal_error("Python script " + folder.path() + "/missing.py doest not exist", 1785));
    }
    std::filesystem::current_path(before);
}

// A statement of the set-up that fails, and the report of it.
struct BROKEN_STATEMENT {
    const char* variable;
    int line;
};

TEST(SearchPath, AQuoteInAFolderIsReportedAtTheStatementThatHoldsIt) {
    for (const BROKEN_STATEMENT& broken : {BROKEN_STATEMENT{"PGM_COMMON_PROGRAMMER_DIR", 1754},
                                           BROKEN_STATEMENT{"PGM_UNSHIPPED_PROGRAMMER_DIR", 1760},
                                           BROKEN_STATEMENT{"PGM_BIN_DIR", 1763}}) {
        const TEST_INSTALLATION installation;
        const ENVIRONMENT_VALUE folder(broken.variable, "/x/\"quoted");
        RECORDING_RECEIVER receiver;
        INTERPRETER_SESSION session;
        EXPECT_EQ(thrown_by([&] { session.setup_system_path(); }),
                  internal_error("py_eval(setting.c_str())", broken.line));
    }
}

TEST(SearchPath, AFolderThatWouldEndItsStatementRunsNothing) {
    for (const BROKEN_STATEMENT& broken : {BROKEN_STATEMENT{"PGM_COMMON_PROGRAMMER_DIR", 1754},
                                           BROKEN_STATEMENT{"PGM_UNSHIPPED_PROGRAMMER_DIR", 1760},
                                           BROKEN_STATEMENT{"PGM_BIN_DIR", 1763}}) {
        for (const char* const text : {"/x\", __import__(\"sys\").stderr.write(\"RUN\") or \"y",
                                       "/x\") or print(\"RUN\", end=\"", "/x\ny", "/x\ry"}) {
            const TEST_INSTALLATION installation;
            const ENVIRONMENT_VALUE folder(broken.variable, text);
            RECORDING_RECEIVER receiver;
            INTERPRETER_SESSION session;
            testing::internal::CaptureStderr();
            EXPECT_EQ(thrown_by([&] { session.setup_system_path(); }),
                      internal_error("py_eval(setting.c_str())", broken.line));
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        }
    }
}

TEST(SearchPath, AQuoteInTheScriptsFolderIsReportedAtItsLine) {
#if defined(_WIN32)
    GTEST_SKIP() << "a file name cannot hold a quote on Windows";
#endif
    const TEMPORARY_FOLDER folder("with \" quote");
    const std::string script = folder.write("tool.py", "");
    RECORDING_RECEIVER receiver;
    INTERPRETER_SESSION session;
    testing::internal::CaptureStderr();
    EXPECT_EQ(thrown_by([&] { session.setup_system_path(script); }),
              internal_error("py_eval(setting.c_str())", 1792));
    testing::internal::GetCapturedStderr();
}

// Lets `import NAME` raise in the running session.
void forbid_import(const char* name) {
    ASSERT_TRUE(py_eval(("import sys, builtins\n"
                         "def refuse(module, *rest, original=builtins.__import__):\n"
                         "    if module == '" +
                         std::string(name) +
                         "':\n"
                         "        raise ImportError('refused')\n"
                         "    return original(module, *rest)\n"
                         "builtins.__import__ = refuse\n")
                            .c_str()));
}

TEST(SearchPath, AFailingImportOfTheSetUpIsReportedAtItsLine) {
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/tool.py", "");
    struct CASE {
        const char* module;
        std::string script;
        const char* expression;
        int line;
    };
    for (const CASE& one : {CASE{"sys", "", "py_eval(\"import sys\")", 1749},
                            CASE{"os", "", "py_eval(\"import os\")", 1750},
                            CASE{"sys", script, "py_eval(\"import sys\")", 1788}}) {
        RECORDING_RECEIVER receiver;
        INTERPRETER_SESSION session;
        forbid_import(one.module);
        testing::internal::CaptureStderr();
        EXPECT_EQ(thrown_by([&] {
                      one.script.empty() ? session.setup_system_path()
                                         : static_cast<void>(session.setup_system_path(one.script));
                  }),
                  internal_error(one.expression, one.line));
        EXPECT_NE(testing::internal::GetCapturedStderr().find("ImportError: refused"),
                  std::string::npos);
    }
}

TEST(SearchPath, TheSecondInsertionOfTheCommonFolderHasItsOwnLine) {
    const TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    INTERPRETER_SESSION session;
    // A search path that takes one insertion only.
    ASSERT_TRUE(
        py_eval("import sys\n"
                "class Once(list):\n"
                "    def insert(self, at, item):\n"
                "        if len(self) > 0:\n"
                "            raise MemoryError('full')\n"
                "        list.insert(self, at, item)\n"
                "sys.path = Once()\n"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(thrown_by([&] { session.setup_system_path(); }),
              internal_error("py_eval(setting.c_str())", 1757));
    testing::internal::GetCapturedStderr();
}

// Modules with code of their own in C, which keeps state from one session to the next.
class SessionsAgain : public testing::TestWithParam<const char*> {};

TEST_P(SessionsAgain, MayEachImport) {
    const std::string import = std::string("import ") + GetParam();
    if (!python_imports_again(GetParam())) {
        GTEST_SKIP() << why_python_does_not_import_again;
    }
    for (int round = 0; round < 3; ++round) {
        const INTERPRETER_SESSION session;
        EXPECT_TRUE(py_eval(import.c_str()));
    }
}

INSTANTIATE_TEST_SUITE_P(ExtensionModules, SessionsAgain,
                         testing::Values("hashlib", "decimal", "datetime", "ctypes", "json",
                                         "socket"),
                         [](const testing::TestParamInfo<const char*>& module) {
                             return std::string(module.param);
                         });

TEST(SearchPathDeathTest, WithoutAReceiverABrokenFolderAborts) {
    const TEST_INSTALLATION installation;
    const ENVIRONMENT_VALUE folder("PGM_COMMON_PROGRAMMER_DIR", "/x/\"quoted");
    EXPECT_DEATH(
        {
            INTERPRETER_SESSION session;
            session.setup_system_path();
        },
        "internal error: py_eval\\(setting.c_str\\(\\)\\) \\[PGM_PYTHON, "
        "pgm/pgm_python/pgm_python_mgr, line 1754\\]\n");
}

}  // namespace
