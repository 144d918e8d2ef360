#include <gtest/gtest.h>

#include <memory>

#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
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

// Counts, at a post, the tuples that hold an item.
struct TUPLE_WATCH : RECORDING_RECEIVER {
    void post(unsigned long number, const std::string& text) override {
        EXPECT_TRUE(interpreter_is_running());
        tuples = count_of_tuples_with(item);
        RECORDING_RECEIVER::post(number, text);
    }
    std::string item;
    int tuples = -1;
};

TEST_F(Queries, AFailureIsPostedBeforeTheTupleIsReleased) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    // What is told of the tuple here is nowhere else.
    install(
        "def get_username(x): raise ValueError\n"
        "query_opn_enum = query_opn_name = read_mif = get_username\n");
    TUPLE_WATCH watch;
    watch.item = "a text that is in no other tuple";
    PGM_PYTHON_MGR::get_username(watch.item);
    EXPECT_EQ(watch.tuples, 1);
    watch.tuples = -1;
    PGM_PYTHON_MGR::query_opn_name(watch.item);
    EXPECT_EQ(watch.tuples, 1);
    watch.tuples = -1;
    unsigned long width = 0;
    unsigned long depth = 0;
    unsigned long size = 0;
    EXPECT_EQ(PGM_PYTHON_MGR::read_mif(watch.item, true, width, depth, size), nullptr);
    EXPECT_EQ(watch.tuples, 1);
    watch.tuples = -1;
    watch.item = "1234567891";
    PGM_PYTHON_MGR::query_opn_enum(1234567891);
    EXPECT_EQ(watch.tuples, 1);
    EXPECT_EQ(watch.reports.size(), 4U);
}

TEST_F(Queries, ACallThatIsRefusedStartsNoInterpreter) {
    // Every interpreter that starts writes.
    const ENVIRONMENT_VALUE loud("PYTHONPROFILEIMPORTTIME", "1");
    unsigned long number = 0;
    for (const std::function<void()>& call :
         {std::function<void()>([] { PGM_PYTHON_MGR::get_username("x"); }),
          std::function<void()>([] { PGM_PYTHON_MGR::query_opn_enum(1); }),
          std::function<void()>([] { PGM_PYTHON_MGR::query_opn_name("x"); }),
          std::function<void()>(
              [&] { PGM_PYTHON_MGR::read_mif("x", true, number, number, number); })}) {
        EXPECT_EQ(
            written_by([&] { EXPECT_NE(thrown_by(call).find("doest not"), std::string::npos); }),
            "");
    }
    written_by([&] { install_answers("'x'"); });
    EXPECT_NE(written_by([] { PGM_PYTHON_MGR::get_username("x"); }).find("import time:"),
              std::string::npos);
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

// ---- read_mif

class MemoryReader : public Queries {
protected:
    // read_mif does `body` with its arguments in the tuple `a`.
    void install_body(const std::string& body) {
        install("import sys\ndef read_mif(*a):\n    " + body + "\n");
    }

    void install_answer(const std::string& expression) { install_body("return " + expression); }

    // Calls with the numbers preset; `buffer` tells whether there was one.
    std::string call(const std::string& file = "memory.mif", bool continuous = true) {
        width = preset_width;
        depth = preset_depth;
        size = preset_size;
        buffer = false;
        const std::unique_ptr<unsigned char[]> image(
            PGM_PYTHON_MGR::read_mif(file, continuous, width, depth, size));
        buffer = image != nullptr;
        return buffer ? std::string(image.get(), image.get() + size) : "";
    }

    // What the script sees of an expression of its arguments `a`.
    std::string seen(const std::string& expression, const std::string& file = "memory.mif",
                     bool continuous = true) {
        install_answer("[bytearray(repr(" + expression + ").encode()), 1, 1]");
        return call(file, continuous);
    }

    // The last call failed: no buffer, and the numbers as they were.
    void expect_nothing() const {
        EXPECT_FALSE(buffer);
        EXPECT_EQ(width, preset_width);
        EXPECT_EQ(depth, preset_depth);
        EXPECT_EQ(size, preset_size);
    }

    static constexpr unsigned long preset_width = 71;
    static constexpr unsigned long preset_depth = 72;
    static constexpr unsigned long preset_size = 73;
    unsigned long width = preset_width;
    unsigned long depth = preset_depth;
    unsigned long size = preset_size;
    bool buffer = false;
};

TEST_F(MemoryReader, TheImageComesWithItsWidthDepthAndSize) {
    install_answer("[bytearray(b'\\0ab\\xff\\0'), 8, 5]");
    EXPECT_EQ(call(), std::string("\0ab\xFF\0", 5));
    EXPECT_EQ(width, 8UL);
    EXPECT_EQ(depth, 5UL);
    EXPECT_EQ(size, 5UL);
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(MemoryReader, AnImageOfNoBytesIsABuffer) {
    install_answer("[bytearray(b''), 8, 0]");
    EXPECT_EQ(call(), "");
    EXPECT_TRUE(buffer);
    EXPECT_EQ(width, 8UL);
    EXPECT_EQ(depth, 0UL);
    EXPECT_EQ(size, 0UL);
}

TEST_F(MemoryReader, TheScriptGetsTheFileAndTheFlag) {
    EXPECT_EQ(seen("a", "a b.mif", true), "('a b.mif', True)");
    EXPECT_EQ(seen("a", "a b.mif", false), "('a b.mif', False)");
    EXPECT_EQ(seen("a[1] is True"), "True");
    EXPECT_EQ(seen("a[1] is False", "x", false), "True");
    EXPECT_EQ(seen("a", ""), "('', True)");
    EXPECT_EQ(seen("a", std::string("ab\0cd", 5)), "('ab', True)");
    EXPECT_EQ(seen("ascii(a[0])", "gr\xC3\xBC\xC3\x9F"), "\"'gr\\\\xfc\\\\xdf'\"");
}

TEST_F(MemoryReader, TheScriptsCommandLineIsItsPathAlone) {
    EXPECT_EQ(seen("sys.argv"),
              "['" + installation.common() + "/python/pgm_python_common_function.pyc']");
}

TEST_F(MemoryReader, WidthAndDepthAre0To0xFFFFFFFF) {
    struct ROW {
        const char* given;
        unsigned long stored;
    };
    for (const ROW& row : {ROW{"0", 0}, ROW{"0x7FFFFFFF", 0x7FFFFFFFUL}, ROW{"-1", 0xFFFFFFFFUL},
                           ROW{"-0x80000000", 0x80000000UL}, ROW{"0x80000000", 0xFFFFFFFFUL},
                           ROW{"0xFFFFFFFF", 0xFFFFFFFFUL}, ROW{"-0x80000001", 0xFFFFFFFFUL},
                           ROW{"2 ** 70", 0xFFFFFFFFUL}}) {
        const std::string given = row.given;
        install_answer("[bytearray(b'x'), " + given + ", 7]");
        EXPECT_EQ(call(), "x");
        EXPECT_EQ(width, row.stored) << given;
        EXPECT_EQ(depth, 7UL);
        install_answer("[bytearray(b'x'), 7, " + given + "]");
        EXPECT_EQ(call(), "x");
        EXPECT_EQ(width, 7UL);
        EXPECT_EQ(depth, row.stored) << given;
    }
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(MemoryReader, ElementsOfAnotherTypeAreAnEmptyImageAndTheNumber0xFFFFFFFF) {
    for (const char* other : {"None", "b'x'", "'x'", "[1]", "(1,)", "7.5j", "object()"}) {
        const std::string element = other;
        EXPECT_EQ(written_by([&] {
                      install_answer("[" + element + ", 8, 9]");
                      EXPECT_EQ(call(), "") << other;
                      EXPECT_TRUE(buffer);
                      EXPECT_EQ(size, 0UL);
                      EXPECT_EQ(width, 8UL);
                      EXPECT_EQ(depth, 9UL);
                      install_answer("[bytearray(b'x'), " + element + ", 9]");
                      EXPECT_EQ(call(), "x");
                      EXPECT_EQ(width, 0xFFFFFFFFUL) << other;
                      EXPECT_EQ(depth, 9UL);
                      install_answer("[bytearray(b'x'), 8, " + element + "]");
                      EXPECT_EQ(call(), "x");
                      EXPECT_EQ(width, 8UL);
                      EXPECT_EQ(depth, 0xFFFFFFFFUL) << other;
                  }),
                  "");
    }
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(MemoryReader, AFloatIsANumberOnlyWherePythonCutsItToOne) {
    constexpr unsigned long expected = PY_VERSION_HEX < 0x030A0000 ? 7 : 0xFFFFFFFFUL;
    install_answer("[bytearray(b'x'), 7.5, 7.5]");
    EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), "x"); }), "");
    EXPECT_EQ(width, expected);
    EXPECT_EQ(depth, expected);
}

TEST_F(MemoryReader, SubclassesOfListAndBytearrayCount) {
    install(
        "class Answer(list): pass\n"
        "class Image(bytearray): pass\n"
        "def read_mif(*a): return Answer([Image(b'ab'), True, 2])\n");
    EXPECT_EQ(call(), "ab");
    EXPECT_EQ(width, 1UL);
    EXPECT_EQ(depth, 2UL);
}

TEST_F(MemoryReader, AnElementThatEmptiesTheListAsItIsReadDoesNoHarm) {
    install(
        "answer = []\n"
        "others = []\n"
        "class Width:\n"
        "    def __index__(self):\n"
        "        answer.clear()\n"
        // What the list held is gone, and its memory in use again.
        "        others.extend(int(str(90000000 + n)) for n in range(500))\n"
        "        return 8\n"
        "    __int__ = __index__\n"
        "def read_mif(*a):\n"
        "    answer.extend([bytearray(b'x'), Width(), int('12345678')])\n"
        "    return answer\n");
    EXPECT_EQ(call(), "x");
    EXPECT_EQ(width, 8UL);
    EXPECT_EQ(depth, 12345678UL);
    before.check();
}

TEST_F(MemoryReader, AnAnswerThatIsNoListOfThreeIsAnInternalError) {
    for (const char* answer :
         {"[]", "[bytearray(b'x'), 1]", "[bytearray(b'x'), 1, 2, 3]", "(bytearray(b'x'), 1, 2)",
          "None", "b'xyz'", "'xyz'", "bytearray(b'xyz')", "3", "3.0", "{}", "object()"}) {
        install_answer(answer);
        EXPECT_EQ(thrown_by([&] { call(); }), internal_error("return_size == 3", 676)) << answer;
        expect_nothing();
        before.check();
    }
    install_answer("[bytearray(b'x'), 1, 2]");
    EXPECT_EQ(call(), "x");
}

TEST_F(MemoryReader, AMissingNumberIsAnInternalErrorAndAMissingImageIsEmpty) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    install(
        "import test_hooks\n"
        "def read_mif(file, continuous): return test_hooks.unfinished(eval(file))\n");
    offer_script_hooks();
    EXPECT_EQ(thrown_by([&] { call("[bytearray(b'x'), None, 9]"); }),
              internal_error("width_object != NULL", 682));
    expect_nothing();
    before.check();
    offer_script_hooks();
    EXPECT_EQ(thrown_by([&] { call("[bytearray(b'x'), 8, None]"); }),
              internal_error("depth_object != NULL", 685));
    expect_nothing();
    before.check();
    offer_script_hooks();
    EXPECT_EQ(thrown_by([&] { call("[None, None, None]"); }),
              internal_error("width_object != NULL", 682));
    expect_nothing();
    offer_script_hooks();
    EXPECT_EQ(call("[None, 8, 9]"), "");
    EXPECT_TRUE(buffer);
    EXPECT_EQ(size, 0UL);
    EXPECT_EQ(width, 8UL);
    before.check();
}

TEST_F(MemoryReader, ACallThatRaisesPostsOneMessageAndLeavesTheNumbers) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_body("raise ValueError('in call')");
    struct LOOKER : RECORDING_RECEIVER {
        void post(unsigned long number, const std::string& text) override {
            EXPECT_TRUE(interpreter_is_running());
            EXPECT_TRUE(port_is_free());
            RECORDING_RECEIVER::post(number, text);
        }
    } looker;
    EXPECT_EQ(written_by([&] { call(); }), "");
    expect_nothing();
    EXPECT_EQ(looker.reports, call_failure("read_mif"));
    install_body("sys.exit(0)");
    looker.reports.clear();
    EXPECT_EQ(written_by([&] { call(); }), "");
    expect_nothing();
    EXPECT_EQ(looker.reports, call_failure("read_mif"));
    before.check();
}

TEST_F(MemoryReader, AScriptThatCannotBeLoadedLeavesTheNumbers) {
    install("raise ValueError('at import')\n");
    const std::string text = written_by([&] { call(); });
    EXPECT_NE(text.find("ValueError: at import\n"), std::string::npos) << text;
    expect_nothing();
    install("");
    const std::string other = written_by([&] { call(); });
    EXPECT_NE(other.find("AttributeError"), std::string::npos) << other;
    expect_nothing();
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to load module pgm_python_common_function",
                                         "error: Fail to find function read_mif"}));
    before.check();
}

TEST_F(MemoryReader, AMissingScriptIsAnInternalErrorAndTheNextCallWorks) {
    EXPECT_EQ(thrown_by([&] { call("\xFF"); }),
              internal_error("Python script " + installation.common() +
                                 "/python/pgm_python_common_function.pyc doest not exist",
                             663));
    expect_nothing();
    before.check();
    install_answer("[bytearray(b'x'), 1, 2]");
    EXPECT_EQ(call(), "x");
}

TEST_F(MemoryReader, AFileNameThatIsNotUtf8IsAnInternalErrorAndTheNextCallWorks) {
    install_answer("[bytearray(b'x'), 1, 2]");
    for (const bool continuous : {true, false}) {
        EXPECT_EQ(thrown_by([&] { call("\xFF", continuous); }),
                  internal_error("pArg != NULL", 669));
        expect_nothing();
        before.check();
        EXPECT_EQ(call("x", continuous), "x");
    }
}

TEST_F(MemoryReader, NoListenerIsStarted) {
    install(std::string(send_function) +
            "def read_mif(*a):\n"
            "    try:\n"
            "        send(b'unheard')\n"
            "    except OSError:\n"
            "        return [bytearray(b'nobody listens'), 1, 1]\n");
    EXPECT_EQ(call(), "nobody listens");
}

// The references to True and False in a session of the test's own.
std::vector<Py_ssize_t> references_to_flags() {
    const INTERPRETER_SESSION session;
    return {Py_REFCNT(Py_True), Py_REFCNT(Py_False)};
}

TEST_F(MemoryReader, AFlagLeavesItsReferencesAsACallWithoutOneDoes) {
    SKIP_UNLESS_FRESH("modules that stay are loaded by the first calls, with references of theirs");
#if PY_VERSION_HEX >= 0x030C0000
    GTEST_SKIP() << "True and False are immortal in this Python";
#endif
    // Sessions of Python 3.7 and 3.8 leave references behind, some 64 sessions after 64 sessions,
    // so as many calls without a flag are the measure. A look at the references is a session, too.
    constexpr int calls = 63;
    const auto change_by = [](const std::function<void()>& call) {
        const std::vector<Py_ssize_t> before_calls = references_to_flags();
        for (int round = 0; round < calls; ++round) {
            call();
        }
        const std::vector<Py_ssize_t> after_calls = references_to_flags();
        return std::vector<Py_ssize_t>{after_calls[0] - before_calls[0],
                                       after_calls[1] - before_calls[1]};
    };
    for (const char* body : {"return [bytearray(b'x'), 1, 2]", "raise ValueError", "return []"}) {
        SCOPED_TRACE(body);
        install_body(std::string(body) + "\nget_username = read_mif");
        const std::vector<Py_ssize_t> without_flag =
            change_by([] { PGM_PYTHON_MGR::get_username("x"); });
        for (const bool continuous : {true, false}) {
            EXPECT_EQ(change_by([&] { thrown_by([&] { call("x", continuous); }); }), without_flag);
        }
    }
}

typedef MemoryReader MemoryReaderDeathTest;

TEST_F(MemoryReaderDeathTest, WithoutAReceiverAMissingScriptAborts) {
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(call(),
                 "/python/pgm_python_common_function.pyc doest not exist \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 663\\]\n");
}

}  // namespace
