#include <gtest/gtest.h>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/support.h"

namespace {

typedef std::vector<std::string> REPORTS;

class Queries : public testing::Test {
protected:
    void install(const std::string& source) {
        installation.common_script("python/pgm_python_common_function.pyc", source);
    }

    // What the operations answer when the script's functions all return `expression` of `x`.
    void install_answers(const std::string& expression) {
        install("def get_username(x): return " + expression +
                "\n"
                "def query_opn_enum(x): return " +
                expression +
                "\n"
                "def query_opn_name(x): return " +
                expression + "\n");
    }

    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
};

REPORTS call_failure(const std::string& function) {
    return {"error 20351: Fail to execute function " + function +
            " in file pgm_python_common_function"};
}

TEST_F(Queries, TheArgumentReachesTheFunctionOfTheName) {
    install(
        "def get_username(x): return 'user ' + x\n"
        "def query_opn_enum(x): return 'opn %r' % x\n"
        "def query_opn_name(x): return len(x)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("a b"), "user a b");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(17), "opn 17");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("four"), 4UL);
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Queries, TheScriptsCommandLineIsItsPathAlone) {
    install("import sys\ndef get_username(x): return repr(sys.argv)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"),
              "['" + installation.common() + "/python/pgm_python_common_function.pyc']");
}

TEST_F(Queries, AnEmptyTextReachesTheScript) {
    install(
        "def get_username(x): return repr(x)\n"
        "def query_opn_name(x): return x == ''\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username(""), "''");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name(""), 1UL);
}

TEST_F(Queries, ATextReachesTheScriptUpToItsFirstZeroByte) {
    install("def get_username(x): return repr(x)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username(std::string("ab\0cd", 5)), "'ab'");
}

TEST_F(Queries, TextsAreUtf8BothWays) {
    install(
        "def get_username(x): return x + chr(0x20AC)\n"
        "def query_opn_enum(x): return chr(x)\n"
        "def query_opn_name(x): return ord(x)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("gr\xC3\xBC\xC3\x9F"), "gr\xC3\xBC\xC3\x9F\xE2\x82\xAC");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(0x20AC), "\xE2\x82\xAC");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("\xE2\x82\xAC"), 0x20ACUL);
}

TEST_F(Queries, AUserNameMayBeBytes) {
    install("def get_username(x): return b'raw \\xff'\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "raw \xFF");
}

TEST_F(Queries, AnAnswerIsCutAtItsFirstZeroByte) {
    install_answers("'ab\\0cd'");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "ab");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "ab");
    install("def get_username(x): return b'ab\\0cd'\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "ab");
}

TEST_F(Queries, CodesFrom0x80000000ReachTheScriptAsNegativeNumbers) {
    install("def query_opn_enum(x): return str(x)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(0), "0");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(0x7FFFFFFF), "2147483647");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(0x80000000UL), "-2147483648");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(0xFFFFFFFFUL), "-1");
}

TEST_F(Queries, CodesComeBackAsUnsigned32BitNumbers) {
    install("def query_opn_name(x): return int(x)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("0"), 0UL);
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("2147483647"), 0x7FFFFFFFUL);
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("-2147483648"), 0x80000000UL);
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("-1"), 0xFFFFFFFFUL);
    // More than a signed 32-bit number holds.
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("2147483648"), 0xFFFFFFFFUL);
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("4294967295"), 0xFFFFFFFFUL);
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("99999999999999999999"), 0xFFFFFFFFUL);
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(Queries, AnAnswerOfAnotherTypeIsTheFailureValueWithoutAMessage) {
    testing::internal::CaptureStderr();
    for (const char* answer : {"None", "7.5j", "[x]", "bytearray(b'x')", "object()"}) {
        install_answers(answer);
        EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "") << answer;
        EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "") << answer;
        EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL) << answer;
        before.check();
    }
    install_answers("42");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
    install_answers("b'bytes'");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL);
    install_answers("'text'");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL);
    EXPECT_TRUE(receiver.reports.empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Queries, ATextThatHasNoUtf8FormIsTheFailureValue) {
    install_answers("chr(0xDC80)");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
}

TEST_F(Queries, AUserNameOfASubclassOfStrIsReadAsBytesAndSoIsEmpty) {
    install(
        "class Name(str): pass\n"
        "def get_username(x): return Name('x')\n"
        "def query_opn_enum(x): return Name('x')\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "x");
}

TEST_F(Queries, ACallThatRaisesPostsOneMessageAndPrintsNoTraceback) {
    install(
        "def get_username(x): raise KeyError(x)\n"
        "def query_opn_enum(x): raise KeyError(x)\n"
        "def query_opn_name(x): raise KeyError(x)\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(receiver.reports, call_failure("get_username"));
    receiver.reports.clear();
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
    EXPECT_EQ(receiver.reports, call_failure("query_opn_enum"));
    receiver.reports.clear();
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL);
    EXPECT_EQ(receiver.reports, call_failure("query_opn_name"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    before.check();
}

TEST_F(Queries, NoListenerIsStarted) {
    install(std::string(send_function) +
            "def get_username(x):\n"
            "    try:\n"
            "        send(b'unheard')\n"
            "    except OSError:\n"
            "        return 'nobody listens'\n"
            "    return 'somebody listens'\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "nobody listens");
}

TEST_F(Queries, AMissingScriptIsAnInternalErrorAndTheNextCallWorks) {
    const std::string text = "Python script " + installation.common() +
                             "/python/pgm_python_common_function.pyc doest not exist";
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::get_username("x"); }), internal_error(text, 819));
    before.check();
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::query_opn_enum(1); }), internal_error(text, 723));
    before.check();
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::query_opn_name("x"); }), internal_error(text, 771));
    before.check();
    install("def get_username(x): return x\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "x");
}

TEST_F(Queries, ATextThatIsNotUtf8IsAnInternalErrorAndTheNextCallWorks) {
    install("def get_username(x): return x\ndef query_opn_name(x): return 1\n");
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::get_username("\xFF"); }),
              internal_error("pArg != NULL", 825));
    before.check();
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::query_opn_name("\xFF"); }),
              internal_error("pArg != NULL", 777));
    before.check();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "x");
}

TEST_F(Queries, AScriptThatCannotBeLoadedGivesTheFailureValue) {
    install("import no_such_module\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("ModuleNotFoundError"),
              std::string::npos);
    const std::string line = "error: Fail to load module pgm_python_common_function";
    EXPECT_EQ(receiver.reports, (REPORTS{line, line, line}));
}

TEST_F(Queries, AMissingFunctionGivesTheFailureValue) {
    install("");
    testing::internal::CaptureStderr();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_enum(1), "");
    EXPECT_EQ(PGM_PYTHON_MGR::query_opn_name("x"), 0xFFFFFFFFUL);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function get_username",
                                         "error: Fail to find function query_opn_enum",
                                         "error: Fail to find function query_opn_name"}));
}

TEST_F(Queries, CompiledCodeOfAnotherPythonGivesTheFailureValue) {
    installation.folder().write("common/programmer/python/pgm_python_common_function.pyc",
                                std::string("\x01\x02\r\n", 4) + std::string(60, '\0'));
    testing::internal::CaptureStderr();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("x"), "");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("bad magic number"), std::string::npos);
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to load module pgm_python_common_function"}));
}

typedef Queries QueriesDeathTest;

TEST_F(QueriesDeathTest, WithoutAReceiverAMissingScriptAborts) {
    const std::string end =
        "/python/pgm_python_common_function.pyc doest not exist \\[PGM_PYTHON, "
        "pgm/pgm_python/pgm_python_mgr, line ";
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(PGM_PYTHON_MGR::get_username("x"), end + "819\\]\n");
    EXPECT_DEATH(PGM_PYTHON_MGR::query_opn_enum(1), end + "723\\]\n");
    EXPECT_DEATH(PGM_PYTHON_MGR::query_opn_name("x"), end + "771\\]\n");
}

TEST_F(QueriesDeathTest, WithoutAReceiverATextThatIsNotUtf8Aborts) {
    install("def get_username(x): return x\n");
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(PGM_PYTHON_MGR::get_username("\xFF"),
                 "internal error: pArg != NULL \\[PGM_PYTHON, pgm/pgm_python/pgm_python_mgr, "
                 "line 825\\]\n");
}

}  // namespace
