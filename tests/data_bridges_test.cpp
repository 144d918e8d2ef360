#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
#include "tests/support.h"
#include "zel/zel_py/py_reference.h"

namespace {

typedef std::vector<std::string> REPORTS;
typedef std::map<std::string, std::string> TEXT_MAP;

// What the process is doing.
std::string state() {
    return std::string(interpreter_is_running() ? "interpreter" : "no interpreter") +
           (port_is_free() ? "" : ", listener");
}

// The state of this process while a call's interpreter runs, which a worker has in a process of its
// own.
std::string running() {
    return calls_are_in_process() ? "interpreter" : "no interpreter";
}

// Notes the state at each report.
class LOOKING_RECEIVER : public RECORDING_RECEIVER {
public:
    void line(int type, const std::string& text) override {
        states.push_back(state());
        RECORDING_RECEIVER::line(type, text);
    }
    void post(unsigned long number, const std::string& text) override {
        states.push_back(state());
        RECORDING_RECEIVER::post(number, text);
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        states.push_back(state());
        RECORDING_RECEIVER::internal_error(error);
    }

    std::vector<std::string> states;
};

// What `action` writes to standard error, reports included.
std::string written_with_reports_by(const std::function<void()>& action) {
    MSG_RECEIVER* const receiver = MSG_RECEIVER::set(nullptr);
    const std::string text = written_by(action);
    MSG_RECEIVER::set(receiver);
    return text;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// What was printed holds an exception of the name and then reports; it ends with `end`.
void expect_exception_and(const std::string& name, const std::string& end,
                          const std::string& text) {
    EXPECT_LT(text.find(name), text.find("error: ")) << text;
    EXPECT_EQ(text.substr(text.size() < end.size() ? 0 : text.size() - end.size()), end);
}

// The same of an exception that comes out of Python code.
void expect_traceback_and(const std::string& end, const std::string& text) {
    EXPECT_EQ(text.find("Traceback (most recent call last):\n"), 0U) << text;
    expect_exception_and("Error", end, text);
}

double milliseconds_of(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// Answers that are no list, no text and no bytes, beside those that are.
const char* const odd_answers[] = {"None", "7", "7.5", "True", "{}", "object()", "(b'x', 1)"};

class Bridges : public testing::Test {
protected:
    // For scripts: send(text); note(text), for `notes`; listener(), which tells whether there is
    // one, and uses it up.
    std::string tools() const {
        return std::string(send_function) +
               "import os, sys\n"
               "def note(text):\n"
               "    with open(r'" +
               installation.folder().path() +
               "/notes', 'a') as file:\n"
               "        file.write(text + '; ')\n"
               "def listener():\n"
               "    try:\n"
               "        socket.create_connection(('127.0.0.1', 57343), 5).close()\n"
               "    except OSError:\n"
               "        return 'no listener'\n"
               "    return 'listener'\n";
    }

    std::string notes() const { return installation.folder().read("notes"); }

    // The message of a failed call that gave no reasons.
    static REPORTS call_failure(const std::string& function, const std::string& module) {
        return {"error 20351: Fail to execute function " + function + " in file " + module};
    }

    TEST_INSTALLATION installation;
    LOOKING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
};

// ---- get_nwfmt_data

struct REQUEST {
    std::string file = "nw.py";
    std::string function = "get_bram_chunks";
    std::string text_1 = "one";
    TEXT_MAP dict_1;
    TEXT_MAP dict_2;
    std::string text_2 = "two";
    TEXT_MAP dict_3;
    TEXT_MAP dict_4;

    REQUEST() = default;
    explicit REQUEST(std::string function_name) : function(std::move(function_name)) {}
};

const char* const chunk_functions[] = {"get_bram_chunks", "get_xcvr_chunks"};
const char* const hash_functions[] = {"get_bram_hash_and_size", "get_xcvr_hash_and_size"};

class NetworkFormat : public Bridges {
protected:
    std::string script(const std::string& name) const {
        return installation.common() + "nwfmt/" + name;
    }

    void install(const std::string& source, const std::string& name = "nw.py") {
        const std::string file =
            installation.folder().write("common/programmernwfmt/" + name, source);
        // Compiled code kept from a source of the same size and second would be taken for this one.
        std::filesystem::remove_all(std::filesystem::u8path(file).parent_path() / "__pycache__");
    }

    // The four functions all do `body` with their arguments in the tuple `a`.
    void install_body(const std::string& body) {
        std::string source = tools() + "def answer(*a):\n    " + body + "\n";
        for (const auto& functions : {chunk_functions, hash_functions}) {
            source += std::string(functions[0]) + " = " + functions[1] + " = answer\n";
        }
        install(source);
    }

    void install_answer(const std::string& expression) { install_body("return " + expression); }

    std::string call(const REQUEST& request = REQUEST()) {
        size_out = untouched;
        PGM_PYTHON_MGR manager;
        const std::vector<unsigned char> data = manager.get_nwfmt_data(
            request.file, request.function, request.text_1, request.dict_1, request.dict_2,
            request.text_2, request.dict_3, request.dict_4, size_out);
        return std::string(data.begin(), data.end());
    }

    // The repr of an expression of the arguments `a`, in the script.
    std::string seen(const std::string& expression, const REQUEST& request = REQUEST()) {
        install_answer("[bytearray(repr(" + expression + ").encode())]");
        return call(request);
    }

    static constexpr unsigned long untouched = 7777;
    unsigned long size_out = untouched;
};

TEST_F(NetworkFormat, ChunksComeOneAfterAnotherInListOrder) {
    install_answer("[bytearray(b'\\0abc'), bytearray(), bytearray(b'\\xff\\0')]");
    for (const char* function : chunk_functions) {
        EXPECT_EQ(call(REQUEST(function)), std::string("\0abc\xFF\0", 6));
        EXPECT_EQ(size_out, untouched);
        EXPECT_TRUE(receiver.reports.empty());
        before.check();
    }
}

TEST_F(NetworkFormat, AnEmptyListIsASuccessWithoutBytes) {
    install_body("send(b'all is well')\n    return []");
    for (const char* function : chunk_functions) {
        EXPECT_EQ(call(REQUEST(function)), "");
        EXPECT_TRUE(receiver.reports.empty());
        EXPECT_EQ(size_out, untouched);
    }
}

TEST_F(NetworkFormat, ChunksThatAreNoListAreNoBytesAndNoMessage) {
    const char* const no_lists[] = {"(bytearray(b'x'),)", "bytearray(b'x')", "b'x'", "'x'",
                                    "iter([bytearray(b'x')])"};
    const auto check = [&](const char* answer) {
        install_answer(answer);
        for (const char* function : chunk_functions) {
            EXPECT_EQ(written_by([&] { EXPECT_EQ(call(REQUEST(function)), "") << answer; }), "");
            EXPECT_EQ(receiver.reports, REPORTS{}) << answer;
            EXPECT_EQ(size_out, untouched) << answer;
        }
    };
    for (const char* answer : odd_answers) {
        check(answer);
    }
    for (const char* answer : no_lists) {
        check(answer);
    }
}

TEST_F(NetworkFormat, SubclassesOfListAndBytearrayCount) {
    install(
        "class Chunks(list): pass\n"
        "class Chunk(bytearray): pass\n"
        "def get_bram_chunks(*a): return Chunks([Chunk(b'ab'), bytearray(b'c')])\n"
        "def get_bram_hash_and_size(*a): return Chunks([Chunk(b'ab'), True])\n");
    EXPECT_EQ(call(), "abc");
    EXPECT_EQ(call(REQUEST("get_bram_hash_and_size")), "ab");
    EXPECT_EQ(size_out, 1UL);
}

TEST_F(NetworkFormat, AHashComesWithItsSize) {
    install_answer("[bytearray(b'\\x00\\xfe' * 16), 4096]");
    for (const char* function : hash_functions) {
        const std::string hash = call(REQUEST(function));
        EXPECT_EQ(hash.size(), 32U);
        EXPECT_EQ(hash.substr(30), std::string("\0\xFE", 2));
        EXPECT_EQ(size_out, 4096UL);
        EXPECT_TRUE(receiver.reports.empty());
        before.check();
    }
}

TEST_F(NetworkFormat, AnEmptyHashStillStoresTheSize) {
    install_answer("[bytearray(), 5]");
    EXPECT_EQ(call(REQUEST("get_xcvr_hash_and_size")), "");
    EXPECT_EQ(size_out, 5UL);
}

TEST_F(NetworkFormat, SizesAre0To0xFFFFFFFF) {
    struct ROW {
        const char* given;
        unsigned long stored;
    };
    for (const ROW& row : {ROW{"0", 0}, ROW{"0x7FFFFFFF", 0x7FFFFFFFUL}, ROW{"-1", 0xFFFFFFFFUL},
                           ROW{"-0x80000000", 0x80000000UL}, ROW{"0x80000000", 0xFFFFFFFFUL},
                           ROW{"0xFFFFFFFF", 0xFFFFFFFFUL}, ROW{"-0x80000001", 0xFFFFFFFFUL},
                           ROW{"2 ** 70", 0xFFFFFFFFUL}}) {
        install_answer("[bytearray(b'h'), " + std::string(row.given) + "]");
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(REQUEST("get_bram_hash_and_size")), "h"); }), "");
        EXPECT_EQ(size_out, row.stored) << row.given;
    }
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(NetworkFormat, ASizeThatIsNoNumberIsStoredAs0xFFFFFFFF) {
    for (const char* size : {"None", "'5'", "b'5'", "bytearray(b'5')", "[5]", "(5,)", "object()"}) {
        install_answer("[bytearray(b'h'), " + std::string(size) + "]");
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(REQUEST("get_bram_hash_and_size")), "h"); }), "");
        EXPECT_EQ(size_out, 0xFFFFFFFFUL) << size;
    }
    EXPECT_TRUE(receiver.reports.empty());
}

TEST_F(NetworkFormat, AFloatIsASizeOnlyWherePythonCutsItToANumber) {
    install_answer("[bytearray(b'h'), 7.5]");
    EXPECT_EQ(written_by([&] { EXPECT_EQ(call(REQUEST("get_bram_hash_and_size")), "h"); }), "");
    EXPECT_EQ(size_out, PY_VERSION_HEX < 0x030A0000 ? 7UL : 0xFFFFFFFFUL);
}

TEST_F(NetworkFormat, AHashAnswerThatIsNoListOfTwoIsAnInternalError) {
    const char* const others[] = {"[]",
                                  "[bytearray(b'h')]",
                                  "[bytearray(b'h'), 1, 2]",
                                  "[bytearray(b'h'), 1, 2, 3]",
                                  "(bytearray(b'h'), 1)",
                                  "bytearray(b'hh')",
                                  "b'hh'",
                                  "'hh'"};
    const auto check = [&](const char* answer, const char* function) {
        install_answer(answer);
        EXPECT_EQ(thrown_by([&] { call(REQUEST(function)); }),
                  internal_error("list_size == 2", 1443))
            << answer;
        EXPECT_EQ(size_out, untouched);
        before.check();
    };
    for (const char* answer : odd_answers) {
        check(answer, "get_bram_hash_and_size");
    }
    for (const char* answer : others) {
        check(answer, "get_xcvr_hash_and_size");
    }
    install_answer("[bytearray(b'h'), 1]");
    EXPECT_EQ(call(REQUEST("get_xcvr_hash_and_size")), "h");
}

TEST_F(NetworkFormat, AnItemThatIsNoBytearrayMakesAFailedCall) {
    for (const char* items : {"[b'x']", "['x']", "[None]", "[1]", "[[bytearray(b'x')]]", "[7.5]",
                              "[memoryview(b'x')]", "[bytearray(b'x'), b'y']"}) {
        receiver.reports.clear();
        install_body("send(b'why')\n    return " + std::string(items));
        // Nothing was raised, so there is no traceback.
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), "") << items; }), "");
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error: Fail to call nwfmt function",
                           "error 20351: Fail to execute function get_bram_chunks in file nw",
                           "error 20353: why"}))
            << items;
    }
    for (const char* items : {"[b'x', 1]", "[None, 1]", "['x', 1]", "[1, bytearray(b'x')]"}) {
        receiver.reports.clear();
        install_body("send(b'why')\n    return " + std::string(items));
        EXPECT_EQ(call(REQUEST("get_bram_hash_and_size")), "") << items;
        EXPECT_EQ(
            receiver.reports,
            (REPORTS{"error: Fail to call nwfmt function",
                     "error 20351: Fail to execute function get_bram_hash_and_size in file nw",
                     "error 20353: why"}))
            << items;
        EXPECT_EQ(size_out, untouched) << items;
    }
    before.check();
}

TEST_F(NetworkFormat, AMissingItemIsAnInternalError) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    struct ROW {
        const char* function;
        const char* items;
        int line;
    };
    for (const ROW& row : {ROW{"get_bram_chunks", "[None]", 1433},
                           ROW{"get_xcvr_chunks", "[bytearray(b'x'), None, bytearray(b'y')]", 1433},
                           ROW{"get_bram_hash_and_size", "[None, 1]", 1447},
                           ROW{"get_xcvr_hash_and_size", "[bytearray(b'h'), None]", 1454},
                           ROW{"get_xcvr_hash_and_size", "[None, None]", 1447}}) {
        install_answer("__import__('test_hooks').unfinished(" + std::string(row.items) + ")");
        offer_script_hooks();
        EXPECT_EQ(thrown_by([&] { call(REQUEST(row.function)); }),
                  internal_error("pObj != nullptr", row.line))
            << row.items;
        EXPECT_EQ(size_out, untouched);
        before.check();
    }
}

TEST_F(NetworkFormat, TheScriptGetsTextsAndDictsInTheirPlaces) {
    REQUEST request;
    request.text_1 = "first text";
    request.dict_1 = {{"a", "1"}};
    request.dict_2 = {{"b", "2"}, {"c", ""}};
    request.text_2 = "";
    request.dict_3 = {{"", "empty key"}};
    request.dict_4 = {{"d", "4"}};
    EXPECT_EQ(seen("a", request),
              "('first text', {'a': '1'}, {'b': '2', 'c': ''}, '', {'': 'empty key'}, {'d': '4'})");
    EXPECT_EQ(seen("[type(x).__name__ for x in a]", request),
              "['str', 'dict', 'dict', 'str', 'dict', 'dict']");
    EXPECT_EQ(seen("{type(x).__name__ for d in (a[1], a[2], a[4], a[5]) for p in d.items()"
                   " for x in p}",
                   request),
              "{'str'}");
}

TEST_F(NetworkFormat, EmptyMapsAreEmptyDicts) {
    EXPECT_EQ(seen("a"), "('one', {}, {}, 'two', {}, {})");
    EXPECT_EQ(seen("len({id(d) for d in (a[1], a[2], a[4], a[5])})"), "4");
}

TEST_F(NetworkFormat, DictsHoldTheirKeysInAscendingOrderOfTheirBytes) {
    const TEXT_MAP map = {{"b", "4"},  {"a", "2"},        {"Z", "1"},
                          {"aa", "3"}, {"\xC3\xA9", "5"}, {"\xE2\x82\xAC", "6"}};
    REQUEST request;
    request.dict_1 = request.dict_2 = request.dict_3 = request.dict_4 = map;
    const std::string values = "['1', '2', '3', '4', '5', '6']";
    EXPECT_EQ(seen("list(a[1].values())", request), values);
    EXPECT_EQ(seen("list(a[2].values())", request), values);
    EXPECT_EQ(seen("list(a[4].values())", request), values);
    EXPECT_EQ(seen("list(a[5].values())", request), values);
    EXPECT_EQ(seen("ascii(list(a[5]))", request),
              "\"['Z', 'a', 'aa', 'b', '\\\\xe9', '\\\\u20ac']\"");
}

TEST_F(NetworkFormat, TextsReachTheScriptUpToTheirFirstZeroByte) {
    REQUEST request;
    request.text_1 = std::string("ab\0cd", 5);
    request.text_2 = std::string("\0x", 2);
    request.dict_1 = {{std::string("k\0x", 3), std::string("v\0w", 3)}};
    // What is cut to the same key is one entry, the last in the map's order.
    request.dict_4 = {{std::string("k\0a", 3), "first"}, {std::string("k\0b", 3), "last"}};
    EXPECT_EQ(seen("a", request), "('ab', {'k': 'v'}, {}, '', {}, {'k': 'last'})");
}

TEST_F(NetworkFormat, TextsAreUtf8) {
    REQUEST request;
    request.text_1 = "gr\xC3\xBC\xC3\x9F";
    request.text_2 = "\xF0\x9F\x94\x91";
    request.dict_2 = {{"\xE2\x82\xAC", "\xC3\xA9"}};
    EXPECT_EQ(seen("ascii(a)", request),
              "\"('gr\\\\xfc\\\\xdf', {}, {'\\\\u20ac': '\\\\xe9'}, '\\\\U0001f511', {}, {})\"");
}

TEST_F(NetworkFormat, ATextThatIsNotUtf8IsAnInternalError) {
    install_answer("[]");
    REQUEST first;
    first.text_1 = "\xFF";
    EXPECT_EQ(thrown_by([&] { call(first); }), internal_error("pArg != nullptr", 449));
    before.check();
    REQUEST second;
    second.text_2 = "\xC3(";
    EXPECT_EQ(thrown_by([&] { call(second); }), internal_error("pArg != nullptr", 476));
    before.check();
    second.text_1 = "\xFF";
    EXPECT_EQ(thrown_by([&] { call(second); }), internal_error("pArg != nullptr", 449));
    // No listener was started before the tuple was built.
    EXPECT_EQ(receiver.states, (REPORTS(3, running())));
    EXPECT_EQ(call(), "");
    EXPECT_EQ(receiver.reports.size(), 3U);
    before.check();
}

TEST_F(NetworkFormat, EachItemIsPlacedBeforeTheNextIsMade) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_body("return []");
    REQUEST request;
    request.text_2 = "\xFF";
    const UNFINISHED_TUPLE looker(6);
    EXPECT_TRUE(contains(thrown_by([&] { call(request); }), "line 476]"));
    EXPECT_EQ(looker.items, 3);
}

TEST_F(NetworkFormat, AnArgumentThatCannotBeMadeIsReportedBeforeAMissingFunction) {
    install("");
    REQUEST request;
    request.text_2 = "\xFF";
    EXPECT_EQ(thrown_by([&] { call(request); }), internal_error("pArg != nullptr", 476));
    request.text_2 = "two";
    written_by([&] { call(request); });
    EXPECT_EQ(receiver.reports.back(), "error: Fail to find function get_bram_chunks");
}

TEST_F(NetworkFormat, AMapWithATextThatIsNotUtf8MakesAFailedCall) {
    install_body("note('called')");
    TEXT_MAP REQUEST::*const maps[] = {&REQUEST::dict_1, &REQUEST::dict_2, &REQUEST::dict_3,
                                       &REQUEST::dict_4};
    const TEXT_MAP bad_maps[] = {{{"a", "1"}, {"\xFF", "2"}}, {{"a", "\xC3("}, {"b", "2"}}};
    for (TEXT_MAP REQUEST::*const map : maps) {
        for (const TEXT_MAP& bad : bad_maps) {
            REQUEST request;
            request.*map = bad;
            const std::string text = written_with_reports_by([&] { EXPECT_EQ(call(request), ""); });
            const std::size_t line = text.find("error: Fail to call nwfmt function\n");
            EXPECT_LT(text.find("UnicodeDecodeError: 'utf-8' codec can't decode"), line) << text;
            EXPECT_EQ(text.substr(line),
                      "error: Fail to call nwfmt function\n"
                      "error 20351: Fail to execute function get_bram_chunks in file nw\n");
            EXPECT_EQ(size_out, untouched);
            before.check();
        }
    }
    EXPECT_EQ(notes(), "");
}

TEST_F(NetworkFormat, AMapThatIsRefusedIsReportedAfterAMissingFunction) {
    install("");
    REQUEST request;
    request.dict_1 = {{"\xFF", "1"}};
    request.dict_4 = {{"k", "\xFF"}};
    written_by([&] { call(request); });
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function get_bram_chunks"}));
    before.check();
}

TEST_F(NetworkFormat, TheArgumentsAreCheckedInOrder) {
    REQUEST request;
    request.file = "";
    request.function = "";
    EXPECT_EQ(thrown_by([&] { call(request); }),
              internal_error("Python file must be specified", 1387));
    request.file = "nw.py";
    EXPECT_EQ(thrown_by([&] { call(request); }),
              internal_error(
                  "Python script " + installation.common() + "nwfmt/nw.py doest not exist", 1390));
    install("");
    EXPECT_EQ(thrown_by([&] { call(request); }),
              internal_error("Python function must be specified", 1391));
    request.function = "get_bram";
    EXPECT_EQ(thrown_by([&] { call(request); }),
              internal_error("Function get_bram is not supported", 1394));
    // All of this comes before the interpreter.
    EXPECT_EQ(receiver.states, (REPORTS(4, "no interpreter")));
    EXPECT_EQ(size_out, untouched);
    before.check();
}

TEST_F(NetworkFormat, OnlyTheFourFunctionsAreSupported) {
    install_answer("[]");
    for (const std::string& name :
         {std::string("Get_bram_chunks"), std::string("get_bram_chunks "),
          std::string(" get_bram_chunks"), std::string("get_bram_chunk"),
          std::string("GET_XCVR_CHUNKS"), std::string("get_xcvr_hash"),
          std::string("get_bram_hash_and_size\n"), std::string("answer"), std::string("%s")}) {
        EXPECT_EQ(thrown_by([&] { call(REQUEST(name)); }),
                  internal_error("Function " + name + " is not supported", 1394));
    }
    EXPECT_EQ(thrown_by([&] { call(REQUEST(std::string("get_bram_chunks\0x", 17))); }),
              internal_error("Function get_bram_chunks is not supported", 1394));
    for (const auto& functions : {chunk_functions, hash_functions}) {
        install_answer(functions == chunk_functions ? "[]" : "[bytearray(), 0]");
        for (int index = 0; index < 2; ++index) {
            receiver.reports.clear();
            call(REQUEST(functions[index]));
            EXPECT_EQ(receiver.reports, REPORTS{}) << functions[index];
        }
    }
}

TEST_F(NetworkFormat, TheScriptsFolderHasNoSeparatorBeforeItsName) {
    installation.common_script("nwfmt/nw.py", "");
    installation.common_script("python/nw.py", "");
    EXPECT_EQ(thrown_by([&] { call(); }),
              internal_error("Python script " + script("nw.py") + " doest not exist", 1390));
}

TEST_F(NetworkFormat, AScriptMayBeCompiledAndInAFolderBelow) {
    const std::string source = "def get_bram_chunks(*a): return [bytearray(__name__.encode())]\n";
    install("", "compiled.pyc");
    write_compiled(script("compiled.pyc"), source);
    install(source, "below/deep.py");
    REQUEST request;
    request.file = "compiled.pyc";
    EXPECT_EQ(call(request), "compiled");
    request.file = "below/deep.py";
    EXPECT_EQ(call(request), "deep");
}

TEST_F(NetworkFormat, AFileThatIsNoScriptIsAnInternalErrorOfTheSession) {
    install("", "nw.txt");
    install("", ".py");
    REQUEST request;
    request.file = "nw.txt";
    EXPECT_EQ(
        thrown_by([&] { call(request); }),
        internal_error("Python script " + script("nw.txt") + " must have extension of .py or .pyc",
                       1781));
    before.check();
    request.file = ".py";
    EXPECT_EQ(thrown_by([&] { call(request); }), internal_error("filename.size()", 1400));
    EXPECT_EQ(receiver.states, (REPORTS(2, running())));
    before.check();
}

TEST_F(NetworkFormat, TheScriptHasNoCommandLine) {
    EXPECT_EQ(seen("[x for x in getattr(sys, 'argv', []) if x]"), "[]");
}

TEST_F(NetworkFormat, OfTheSuiteOnlyTheScriptsFolderIsOnTheSearchPath) {
    const ENVIRONMENT_VALUE none("PGM_PYTHON_BIN_DIR", nullptr);
    EXPECT_EQ(seen("sys.path[0]"), "'" + installation.common() + "nwfmt'");
    EXPECT_EQ(seen("[x for x in sys.path[1:] if 'programmer' in x]"), "[]");
    EXPECT_EQ(seen("os.environ.get('PGM_PYTHON_BIN_DIR')"), "None");
}

TEST_F(NetworkFormat, TheListenerStartsBetweenTheLookupAndTheCall) {
    install(tools() +
            "note('import: ' + listener())\n"
            "def __getattr__(name):\n"
            "    if name != 'get_bram_chunks':\n"
            "        raise AttributeError(name)\n"
            "    note('lookup: ' + listener())\n"
            "    return lambda *a: note('call: ' + listener())\n");
    call();
    EXPECT_EQ(notes(), "import: no listener; lookup: no listener; call: listener; ");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(NetworkFormat, AScriptThatCannotBeLoadedIsNotCompleted) {
    install(tools() + "send(b'nobody listens')\n");
    const std::string text = written_with_reports_by([&] { EXPECT_EQ(call(), ""); });
    expect_traceback_and("error: Fail to load module nw\n", text);
    before.check();

    install("raise ValueError('at import')\n");
    const std::string end = "ValueError: at import\nerror: Fail to load module nw\n";
    expect_traceback_and(end, written_with_reports_by([&] { EXPECT_EQ(call(), ""); }));
    EXPECT_EQ(size_out, untouched);

    written_by([&] { call(); });
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
}

TEST_F(NetworkFormat, AMissingFunctionIsNotCompleted) {
    install("def get_xcvr_chunks(*a): return [bytearray(b'x')]\n");
    const std::string text = written_with_reports_by([&] { EXPECT_EQ(call(), ""); });
    expect_exception_and("AttributeError", "error: Fail to find function get_bram_chunks\n", text);
    EXPECT_EQ(size_out, untouched);
    written_by([&] { call(REQUEST("get_xcvr_hash_and_size")); });
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function get_xcvr_hash_and_size"}));
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
}

TEST_F(NetworkFormat, AModuleNameThatIsNoTextIsReported) {
#if defined(_WIN32)
    GTEST_SKIP() << "file names are text on Windows";
#endif
    installation.folder().make_folder("common/programmernwfmt");
    {
        std::FILE* const file = std::fopen(script("\xFF.py").c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fclose(file);
    }
    REQUEST request;
    request.file = "\xFF.py";
    const std::string text = written_by([&] { EXPECT_EQ(call(request), ""); });
    EXPECT_TRUE(contains(text, "UnicodeDecodeError")) << text;
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to convert module name \xFF to PyObject"}));
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
}

TEST_F(NetworkFormat, ACallThatRaisesIsReportedAfterItsTracebackWithItsReasons) {
    install_body("send(b'first !@#$^&*() second')\n    raise ValueError('in call')");
    for (const char* function : {"get_bram_chunks", "get_xcvr_hash_and_size"}) {
        const std::string end = std::string("ValueError: in call\n") +
                                "error: Fail to call nwfmt function\n" +
                                "error 20351: Fail to execute function " + function +
                                " in file nw\n" + "error 20353: first\n" + "error 20353: second\n";
        expect_traceback_and(
            end, written_with_reports_by([&] { EXPECT_EQ(call(REQUEST(function)), ""); }));
        EXPECT_EQ(size_out, untouched);
        before.check();
    }
}

TEST_F(NetworkFormat, AFailedCallIsCompletedWhileTheInterpreterRuns) {
    install_body("send(b'why')\n    raise ValueError");
    written_by([&] { call(); });
    // The line comes before the listener is ended.
    ASSERT_EQ(receiver.states.size(), 3U);
    EXPECT_EQ(receiver.states[0].substr(0, running().size()), running());
    EXPECT_EQ(receiver.states[1], running());
    EXPECT_EQ(receiver.states[2], running());
}

TEST_F(NetworkFormat, TheLineOfAFailedCallIsPrintedBeforeTheListenerIsEnded) {
    install_body("raise ValueError");
    written_by([&] { EXPECT_GE(milliseconds_of([&] { call(); }), 490); });
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Fail to call nwfmt function",
                       "error 20351: Fail to execute function get_bram_chunks in file nw"}));
    EXPECT_EQ(receiver.states, (REPORTS{running() + ", listener", running()}));
}

TEST_F(NetworkFormat, AScriptThatLeavesHasFailed) {
    for (const char* status : {"", "0", "3", "'text'"}) {
        receiver.reports.clear();
        install_body("send(b'left')\n    sys.exit(" + std::string(status) + ")");
        written_by([&] { EXPECT_EQ(call(), ""); });
        EXPECT_EQ(receiver.reports,
                  (REPORTS{"error: Fail to call nwfmt function",
                           "error 20351: Fail to execute function get_bram_chunks in file nw",
                           "error 20353: left"}));
        before.check();
    }
}

TEST_F(NetworkFormat, TheResultIsReleasedAfterTheCompletion) {
    const std::string late_note =
        "class Late(bytearray):\n"
        "    def __del__(self): note('released: ' + listener())\n";
    install(tools() + late_note + "def get_bram_chunks(*a): return [Late(b'x')]\n");
    EXPECT_EQ(call(), "x");
    EXPECT_EQ(notes(), "released: no listener; ");

    // Of a call that failed by its items too.
    install(late_note +
            "import sys\n"
            "def note(text):\n"
            "    sys.stderr.write('released\\n')\n"
            "def listener(): return ''\n"
            "def get_bram_chunks(*a): return [Late(b'x'), None]\n");
    EXPECT_EQ(written_with_reports_by([&] { EXPECT_EQ(call(), ""); }),
              "error: Fail to call nwfmt function\n"
              "error 20351: Fail to execute function get_bram_chunks in file nw\n"
              "released\n");
}

TEST_F(NetworkFormat, ResultFunctionTupleAndModuleAreReleasedInThisOrder) {
    install(tools() +
            "import types\n"
            "class Late(bytearray):\n"
            "    def __del__(self): note('result')\n"
            "class Function:\n"
            "    def __call__(self, *a):\n"
            "        global text\n"
            "        text = a[0]\n"
            "        del sys.modules['nw']\n"
            "        return [Late(b'x')]\n"
            // The tuple still holds its text then.
            "    def __del__(self): note('function, text %d' % (sys.getrefcount(text) - 2))\n"
            "class Module(types.ModuleType):\n"
            "    def __getattr__(self, name):\n"
            "        if name != 'get_bram_chunks':\n"
            "            raise AttributeError(name)\n"
            "        return Function()\n"
            "    def __del__(self): note('module, text %d' % (sys.getrefcount(text) - 2))\n"
            "sys.modules['nw'] = Module('nw')\n");
    EXPECT_EQ(call(), "x");
    EXPECT_EQ(notes(), "result; function, text 1; module, text 0; ");
    before.check();
}

TEST_F(NetworkFormat, KeysAndValuesLiveUntilJustBeforeTheInterpreterIsFinalised) {
    install(tools() +
            "import atexit, types\n"
            // References beyond those of the dict and of this function.
            "def extra(texts): return [sys.getrefcount(text) - 3 for text in texts]\n"
            "class Function:\n"
            "    def __call__(self, *a):\n"
            "        global kept\n"
            "        dicts = (a[1], a[2], a[4], a[5])\n"
            "        note('in the call %s' % [extra(d) + extra(d.values()) for d in dicts])\n"
            "        kept = [text for d in dicts for pair in d.items() for text in pair]\n"
            "        del sys.modules['nw']\n"
            "        return []\n"
            "class Module(types.ModuleType):\n"
            "    get_bram_chunks = Function()\n"
            "    def __del__(self): note('without the tuple %s' % extra(kept))\n"
            "atexit.register(lambda: note('finalised %s' % extra(kept)))\n"
            "sys.modules['nw'] = Module('nw')\n");
    REQUEST request;
    request.dict_1 = {{"key 1", "value 1"}};
    request.dict_2 = {{"key 2", "value 2"}};
    request.dict_3 = {{"key 3", "value 3"}};
    request.dict_4 = {{"key 4", "value 4"}};
    call(request);
    EXPECT_EQ(notes(),
              "in the call [[1, 1], [1, 1], [1, 1], [1, 1]]; "
              "without the tuple [1, 1, 1, 1, 1, 1, 1, 1]; "
              "finalised [0, 0, 0, 0, 0, 0, 0, 0]; ");
}

TEST_F(NetworkFormat, APortThatIsTakenLosesTheReasonsOnly) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    install_answer("[bytearray(b'x')]");
    EXPECT_EQ(call(), "x");
    install_answer("1 / 0");
    written_by([&] { EXPECT_EQ(call(), ""); });
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Fail to call nwfmt function",
                       "error 20351: Fail to execute function get_bram_chunks in file nw"}));
}

typedef NetworkFormat NetworkFormatDeathTest;

TEST_F(NetworkFormatDeathTest, WithoutAReceiverAMissingFileNameAborts) {
    MSG_RECEIVER::set(nullptr);
    REQUEST request;
    request.file = "";
    EXPECT_DEATH(call(request),
                 "internal error: Python file must be specified \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 1387\\]\n");
}

// ---- generate_rim

class Manifest : public Bridges {
protected:
    static constexpr const char* function = "external_make_rim_function";

    void install(const std::string& source) {
        installation.common_script("python/rim_generator.pyc", source);
    }

    void install_body(const std::string& body) {
        install(tools() + "def external_make_rim_function(*a):\n    " + body + "\n");
    }

    static bool call(unsigned long number = 1) {
        return PGM_PYTHON_MGR::generate_rim("in.rbf", "family", number, "out.rim");
    }

    // What the script notes of an expression of its arguments `a`.
    std::string seen(const std::string& expression, unsigned long number = 1) {
        install_body("note(repr(" + expression + "))");
        installation.folder().write("notes", "");
        EXPECT_TRUE(call(number));
        return notes();
    }
};

TEST_F(Manifest, TheArgumentsAreCheckedInOrderBeforeAnythingElse) {
    struct ROW {
        const char* rbf_file;
        const char* family;
        const char* output_file;
        const char* text;
        int line;
    };
    for (const ROW& row :
         {ROW{"", "", "", "!rbf_file.empty()", 1517}, ROW{"", "f", "o", "!rbf_file.empty()", 1517},
          ROW{"r", "", "", "!family.empty()", 1518}, ROW{"r", "", "o", "!family.empty()", 1518},
          ROW{"r", "f", "", "!output_file.empty()", 1519}}) {
        receiver.states.clear();
        EXPECT_EQ(thrown_by([&] {
                      PGM_PYTHON_MGR::generate_rim(row.rbf_file, row.family, 0, row.output_file);
                  }),
                  internal_error(row.text, row.line));
        EXPECT_EQ(receiver.states, (REPORTS{"no interpreter"}));
        before.check();
    }
}

TEST_F(Manifest, AMissingScriptIsAnInternalErrorWhileTheListenerListens) {
    // Neither source nor another folder stands in for it.
    const std::string source = installation.common_script("python/rim_generator.py", "");
    installation.unshipped_script("python/rim_generator.pyc", "");
    EXPECT_EQ(thrown_by([&] { call(); }),
              internal_error("Python script " + installation.common() +
                                 "/python/rim_generator.pyc doest not exist",
                             1534));
    EXPECT_EQ(receiver.states, (REPORTS{"no interpreter, listener"}));
    before.check();
    std::filesystem::remove(source);
    install_body("return None");
    EXPECT_TRUE(call());
    before.check();
}

TEST_F(Manifest, TheScriptGetsItsFourArguments) {
    EXPECT_EQ(seen("a", 42), "('in.rbf', 'family', 42, 'out.rim'); ");
    EXPECT_EQ(seen("[type(x).__name__ for x in a]"), "['str', 'str', 'int', 'str']; ");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Manifest, TextsAreUtf8UpToTheirFirstZeroByte) {
    install_body("note(ascii(a))");
    EXPECT_TRUE(PGM_PYTHON_MGR::generate_rim(std::string("in\0x", 4), "gr\xC3\xBC\xC3\x9F", 1,
                                             "\xE2\x82\xAC"));
    EXPECT_EQ(notes(), "('in', 'gr\\xfc\\xdf', 1, '\\u20ac'); ");
}

TEST_F(Manifest, NumbersFrom0x80000000ReachTheScriptAsNegativeOnes) {
    EXPECT_EQ(seen("a[2]", 0), "0; ");
    EXPECT_EQ(seen("a[2]", 0x7FFFFFFFUL), "2147483647; ");
    EXPECT_EQ(seen("a[2]", 0x80000000UL), "-2147483648; ");
    EXPECT_EQ(seen("a[2]", 0xFFFFFFFFUL), "-1; ");
    if (sizeof(unsigned long) > 4) {
        EXPECT_EQ(seen("a[2]", static_cast<unsigned long>(0x1234567890ULL)), "878082192; ");
    }
}

TEST_F(Manifest, TheScriptSeesItsCommandLineAndTheSuite) {
    EXPECT_EQ(seen("sys.argv"), "['" + installation.common() + "/python/rim_generator.pyc']; ");
    EXPECT_EQ(seen("sys.path[:4]"), "['" + installation.common() + "/python', '" +
                                        installation.unshipped() + "/python/source', '" +
                                        installation.common() + "/python/source', '" +
                                        installation.common() + "/python']; ");
    EXPECT_EQ(seen("os.environ['PGM_PYTHON_BIN_DIR']"), "'" + installation.bin() + "'; ");
}

TEST_F(Manifest, WhateverTheFunctionReturnsIsASuccess) {
    for (const char* answer : {"False", "''", "b'x'", "[]", "[None]", "0"}) {
        install_body("return " + std::string(answer));
        EXPECT_EQ(written_by([&] { EXPECT_TRUE(call()) << answer; }), "");
    }
    for (const char* answer : odd_answers) {
        install_body("return " + std::string(answer));
        EXPECT_EQ(written_by([&] { EXPECT_TRUE(call()) << answer; }), "");
    }
    install(
        "class Unreadable:\n"
        "    def __bool__(self): raise ValueError\n"
        "    __str__ = __len__ = __index__ = __bool__\n"
        "def external_make_rim_function(*a): return Unreadable()\n");
    EXPECT_EQ(written_by([&] { EXPECT_TRUE(call()); }), "");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Manifest, ATextThatIsNotUtf8IsAnInternalErrorInTheOrderOfTheArguments) {
    install_body("note('called')");
    struct ROW {
        const char* rbf_file;
        const char* family;
        const char* output_file;
        const char* text;
        int line;
    };
    for (const ROW& row : {ROW{"\xFF", "\xFF", "\xFF", "pArg0 != nullptr", 1540},
                           ROW{"r", "\xFF", "\xFF", "pArg1 != nullptr", 1542},
                           ROW{"r", "f", "\xFF", "pArg3 != nullptr", 1546}}) {
        receiver.states.clear();
        EXPECT_EQ(thrown_by([&] {
                      PGM_PYTHON_MGR::generate_rim(row.rbf_file, row.family, 1, row.output_file);
                  }),
                  internal_error(row.text, row.line));
        EXPECT_EQ(receiver.states, (REPORTS{running() + ", listener"}));
        before.check();
    }
    EXPECT_TRUE(call());
    EXPECT_EQ(notes(), "called; ");
}

TEST_F(Manifest, EveryItemIsMadeBeforeAnyIsPlaced) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_body("return None");
    const UNFINISHED_TUPLE looker(4);
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::generate_rim("in.rbf", "family", 1, "\xFF"); }),
              internal_error("pArg3 != nullptr", 1546));
    EXPECT_EQ(looker.items, 0);
}

TEST_F(Manifest, TheListenerIsThereAsTheScriptIsLoaded) {
    install(tools() +
            "note(listener())\n"
            "def external_make_rim_function(*a): pass\n");
    EXPECT_TRUE(call());
    EXPECT_EQ(notes(), "listener; ");
}

TEST_F(Manifest, ACallThatRaisesPostsItsReasonsAfterTheInterpreterAndPrintsNoTraceback) {
    install_body("send(b'first !@#$^&*() second')\n    raise ValueError('in call')");
    EXPECT_EQ(written_by([&] { EXPECT_FALSE(call()); }), "");
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error 20351: Fail to execute function external_make_rim_function in file "
                       "rim_generator",
                       "error 20353: first", "error 20353: second"}));
    EXPECT_EQ(receiver.states, (REPORTS(3, "no interpreter")));
    before.check();
}

TEST_F(Manifest, AScriptThatLeavesHasFailed) {
    for (const char* status : {"", "0", "3", "'text'"}) {
        receiver.reports.clear();
        install_body("send(b'')\n    sys.exit(" + std::string(status) + ")");
        EXPECT_EQ(written_by([&] { EXPECT_FALSE(call()); }), "");
        EXPECT_EQ(receiver.reports, call_failure(function, "rim_generator"));
    }
}

TEST_F(Manifest, AScriptThatCannotBeLoadedIsCompletedWithItsReasons) {
    install(tools() + "send(b'no licence')\nraise ValueError('at import')\n");
    expect_traceback_and(
        "ValueError: at import\n"
        "error: Fail to load module rim_generator\n"
        "error 20351: Fail to execute function external_make_rim_function in file rim_generator\n"
        "error 20353: no licence\n",
        written_with_reports_by([&] { EXPECT_FALSE(call()); }));
    written_by([&] { EXPECT_FALSE(call()); });
    ASSERT_EQ(receiver.states.size(), 3U);
    EXPECT_EQ(receiver.states[0].substr(0, running().size()), running());
    EXPECT_EQ(receiver.states[1], "no interpreter");
    EXPECT_EQ(receiver.states[2], "no interpreter");
    before.check();
}

TEST_F(Manifest, AMissingFunctionIsCompleted) {
    install(tools() + "send(b'too old')\n");
    const std::string text = written_with_reports_by([&] { EXPECT_FALSE(call()); });
    expect_exception_and(
        "AttributeError",
        "error: Fail to find function external_make_rim_function\n"
        "error 20351: Fail to execute function external_make_rim_function in file rim_generator\n"
        "error 20353: too old\n",
        text);
    before.check();
}

TEST_F(Manifest, TextOfASuccessfulCallIsDiscarded) {
    install_body("send(b'all is well')");
    EXPECT_TRUE(call());
    EXPECT_TRUE(receiver.reports.empty());
}

typedef Manifest ManifestDeathTest;

TEST_F(ManifestDeathTest, WithoutAReceiverAMissingInputAborts) {
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(PGM_PYTHON_MGR::generate_rim("", "", 0, ""),
                 "internal error: !rbf_file.empty\\(\\) \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 1517\\]\n");
}

// ---- execute_mysql

class Database : public Bridges {
protected:
    void install(const std::string& source) {
        installation.unshipped_script("mysql/mysql.pyc", source);
    }

    void install_answer(const std::string& expression) {
        install(tools() + "def mysql(*a, **b): return " + expression + "\n");
    }

    // Calls with `found` preset to the contrary of what it should become.
    std::string call(const std::vector<std::string>& arguments = {}) {
        found = false;
        return PGM_PYTHON_MGR::execute_mysql(arguments, found);
    }

    std::string seen(const std::string& expression,
                     const std::vector<std::string>& arguments = {}) {
        install_answer("repr(" + expression + ")");
        return call(arguments);
    }

    bool found = false;
};

TEST_F(Database, AMissingScriptIsToldByFoundAlone) {
    // Neither source nor another folder stands in for it.
    const std::string source = installation.unshipped_script("mysql/mysql.py", "");
    installation.unshipped_script("python/mysql.pyc", "");
    installation.common_script("mysql/mysql.pyc", "");
    // Every interpreter that starts writes.
    const ENVIRONMENT_VALUE loud("PYTHONPROFILEIMPORTTIME", "1");
    found = true;
    EXPECT_EQ(written_with_reports_by([&] {
                  EXPECT_EQ(PGM_PYTHON_MGR::execute_mysql({"a", ""}, found), "");
              }),
              "");
    EXPECT_FALSE(found);
    before.check();

    std::filesystem::remove(source);
    written_by([&] { install_answer("'x'"); });
    EXPECT_TRUE(contains(written_by([&] { EXPECT_EQ(call(), "x"); }), "import time:"));
    EXPECT_TRUE(found);
}

#if !defined(_WIN32)

// The flags with which the unshipped programmer folder was asked for.
std::vector<bool> unshipped_flags;

}  // namespace

// The linker puts this one in the place of PGM_COMMON::pgm_get_unshipped_programmer.
extern "C" std::string __real__ZN10PGM_COMMON28pgm_get_unshipped_programmerB5cxx11Eb(bool internal);
extern "C" std::string __wrap__ZN10PGM_COMMON28pgm_get_unshipped_programmerB5cxx11Eb(
    bool internal) {
    unshipped_flags.push_back(internal);
    return __real__ZN10PGM_COMMON28pgm_get_unshipped_programmerB5cxx11Eb(internal);
}

namespace {

TEST_F(Database, TheScriptsFolderIsAskedForAsAnInternalOne) {
    SKIP_UNLESS_IN_PROCESS("the host asks for the folders of the search path, too");
    unshipped_flags.clear();
    bool was_found = true;
    PGM_PYTHON_MGR::execute_mysql({}, was_found);
    EXPECT_EQ(unshipped_flags, (std::vector<bool>{true}));
    unshipped_flags.clear();
    install_answer("'x'");
    EXPECT_EQ(call(), "x");
    EXPECT_EQ(unshipped_flags, (std::vector<bool>{true}));
}

#endif

TEST_F(Database, TheFunctionGetsNoArguments) {
    EXPECT_EQ(seen("(a, b)", {"x"}), "((), {})");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Database, TheScriptsCommandLineIsItsPathAndTheArguments) {
    const std::string path = "'" + installation.unshipped() + "/mysql/mysql.pyc'";
    EXPECT_EQ(seen("sys.argv"), "[" + path + "]");
    EXPECT_EQ(seen("sys.argv", {"--query=select 1", "two words", "'", "-c"}),
              "[" + path + ", '--query=select 1', 'two words', \"'\", '-c']");
}

TEST_F(Database, OfTheSuiteOnlyTheScriptsFolderIsOnTheSearchPath) {
    const ENVIRONMENT_VALUE none("PGM_PYTHON_BIN_DIR", nullptr);
    EXPECT_EQ(seen("sys.path[0]"), "'" + installation.unshipped() + "/mysql'");
    EXPECT_EQ(seen("[x for x in sys.path[1:] if 'programmer' in x]"), "[]");
    EXPECT_EQ(seen("os.environ.get('PGM_PYTHON_BIN_DIR')"), "None");
}

TEST_F(Database, AnAnswerIsTextOrBytesUpToTheFirstZeroByte) {
    struct ROW {
        const char* answer;
        const char* result;
    };
    for (const ROW& row :
         {ROW{"'rows'", "rows"}, ROW{"'gr\\u00fc\\u00df'", "gr\xC3\xBC\xC3\x9F"},
          ROW{"'ab\\0cd'", "ab"}, ROW{"''", ""}, ROW{"'\\0x'", ""}, ROW{"b'raw \\xff'", "raw \xFF"},
          ROW{"b'ab\\0cd'", "ab"}, ROW{"b''", ""}, ROW{"type('B', (bytes,), {})(b'sub')", "sub"}}) {
        install_answer(row.answer);
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), row.result) << row.answer; }), "");
        EXPECT_TRUE(found);
        EXPECT_EQ(receiver.reports, REPORTS{}) << row.answer;
        before.check();
    }
}

TEST_F(Database, AnAnswerOfAnotherTypeIsEmptyWithoutAMessage) {
    const auto check = [&](const char* answer) {
        install_answer(answer);
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), "") << answer; }), "");
        EXPECT_TRUE(found);
        EXPECT_EQ(receiver.reports, REPORTS{}) << answer;
    };
    for (const char* answer : odd_answers) {
        check(answer);
    }
    for (const char* answer : {"bytearray(b'x')", "['x']", "type('S', (str,), {})('x')",
                               "'lone \\ud800'", "memoryview(b'x')"}) {
        check(answer);
    }
    before.check();
}

TEST_F(Database, ACallThatRaisesIsReportedAfterItsTraceback) {
    install_answer("1 / 0");
    expect_traceback_and(
        "ZeroDivisionError: division by zero\nerror: Fail to call mysql function\n",
        written_with_reports_by([&] { EXPECT_EQ(call(), ""); }));
    EXPECT_TRUE(found);
    written_by([&] { call(); });
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
}

TEST_F(Database, AScriptThatLeavesHasFailed) {
    for (const char* status : {"", "0", "3", "'text'"}) {
        receiver.reports.clear();
        install_answer("sys.exit(" + std::string(status) + ")");
        written_by([&] { EXPECT_EQ(call(), ""); });
        EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to call mysql function"}));
        EXPECT_TRUE(found);
        before.check();
    }
}

TEST_F(Database, AMissingFunctionIsReportedAfterItsTraceback) {
    install("def other(): return 'x'\n");
    const std::string text = written_with_reports_by([&] { EXPECT_EQ(call(), ""); });
    expect_exception_and("AttributeError", "error: Fail to find mysql function\n", text);
    EXPECT_TRUE(found);
    before.check();
}

TEST_F(Database, AScriptThatCannotBeLoadedIsReportedAfterItsTraceback) {
    install("raise ValueError('at import')\n");
    expect_traceback_and("ValueError: at import\nerror: Fail to load module mysql\n",
                         written_with_reports_by([&] { EXPECT_EQ(call(), ""); }));
    EXPECT_TRUE(found);
    before.check();
}

TEST_F(Database, NoListenerIsStarted) {
    install(tools() +
            "at_import = listener()\n"
            "def mysql(): return at_import + ', ' + listener()\n");
    EXPECT_EQ(call(), "no listener, no listener");
}

TEST_F(Database, AnEmptyArgumentIsAnInternalErrorWithFoundSet) {
    install_answer("repr(sys.argv[1:])");
    EXPECT_EQ(thrown_by([&] {
                  call({"a", "", "b"});
              }),
              internal_error("Argument at index 1 cannot be empty string", 1680));
    EXPECT_TRUE(found);
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
    // The check goes on when its report returns.
    receiver.returns_from_internal_errors = true;
    EXPECT_EQ(call({"a", "", "b"}), "['a', '', 'b']");
    before.check();
}

typedef Database DatabaseDeathTest;

TEST_F(DatabaseDeathTest, WithoutAReceiverAnEmptyArgumentAborts) {
    install_answer("''");
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(call({""}),
                 "internal error: Argument at index 0 cannot be empty string \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 1680\\]\n");
}

// ---- sync_p4file

class Depot : public Bridges {
protected:
    static constexpr const char* module = "pgm_python_common_function";

    void install(const std::string& source) {
        installation.common_script("python/pgm_python_common_function.pyc", source);
    }

    void install_body(const std::string& body) {
        install(tools() + "def sync_p4file(*a):\n    " + body + "\n");
    }

    static std::string call() { return PGM_PYTHON_MGR::sync_p4file("folder", "//depot/file"); }

    std::string seen(const std::string& expression) {
        install_body("return repr(" + expression + ")");
        return call();
    }
};

TEST_F(Depot, TheArgumentsAreCheckedInOrderBeforeAnythingElse) {
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("", ""); }),
              internal_error("folder must be specified", 941));
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("", "source"); }),
              internal_error("folder must be specified", 941));
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("folder", ""); }),
              internal_error("p4source must be specified", 942));
    EXPECT_EQ(thrown_by([] { call(); }),
              internal_error("Python script " + installation.common() +
                                 "/python/pgm_python_common_function.pyc doest not exist",
                             951));
    EXPECT_EQ(receiver.states, (REPORTS(4, "no interpreter")));
    before.check();
    install_body("return 'next'");
    EXPECT_EQ(call(), "next");
}

TEST_F(Depot, TheScriptGetsItsTwoTexts) {
    EXPECT_EQ(seen("a"), "('folder', '//depot/file')");
    EXPECT_EQ(seen("[type(x).__name__ for x in a]"), "['str', 'str']");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Depot, TextsAreUtf8UpToTheirFirstZeroByteBothWays) {
    install_body("return ascii(a) + chr(0x20AC) + chr(0) + 'x'");
    EXPECT_EQ(PGM_PYTHON_MGR::sync_p4file("gr\xC3\xBC\xC3\x9F", std::string("ab\0cd", 5)),
              "('gr\\xfc\\xdf', 'ab')\xE2\x82\xAC");
}

TEST_F(Depot, TheScriptSeesItsCommandLineAndTheSuite) {
    EXPECT_EQ(seen("sys.argv"),
              "['" + installation.common() + "/python/pgm_python_common_function.pyc']");
    EXPECT_EQ(seen("sys.path[:4]"), "['" + installation.common() + "/python', '" +
                                        installation.unshipped() + "/python/source', '" +
                                        installation.common() + "/python/source', '" +
                                        installation.common() + "/python']");
    EXPECT_EQ(seen("os.environ['PGM_PYTHON_BIN_DIR']"), "'" + installation.bin() + "'");
}

TEST_F(Depot, AnEmptyAnswerIsASuccess) {
    install_body("send(b'all is well')\n    return ''");
    EXPECT_EQ(call(), "");
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST_F(Depot, ASubclassOfStrIsText) {
    install_body("return type('S', (str,), {})('sub')");
    EXPECT_EQ(call(), "sub");
}

TEST_F(Depot, AnAnswerThatIsNoTextIsEmptyWithoutAMessage) {
    const auto check = [&](const char* answer) {
        install_body("return " + std::string(answer));
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), "") << answer; }), "");
        EXPECT_EQ(receiver.reports, REPORTS{}) << answer;
    };
    for (const char* answer : odd_answers) {
        check(answer);
    }
    for (const char* answer : {"b'x'", "bytearray(b'x')", "['x']", "'lone \\ud800'"}) {
        check(answer);
    }
    before.check();
}

TEST_F(Depot, ATextThatIsNotUtf8IsAnInternalErrorWhileTheListenerListens) {
    install_body("return 'next'");
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("\xFF", "\xFF"); }),
              internal_error("pArg0 != NULL", 961));
    before.check();
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("folder", "\xFF"); }),
              internal_error("pArg1 != NULL", 963));
    before.check();
    EXPECT_EQ(receiver.states, (REPORTS(2, running() + ", listener")));
    EXPECT_EQ(call(), "next");
}

TEST_F(Depot, EveryItemIsMadeBeforeAnyIsPlaced) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_body("return ''");
    const UNFINISHED_TUPLE looker(2);
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::sync_p4file("folder", "\xFF"); }),
              internal_error("pArg1 != NULL", 963));
    EXPECT_EQ(looker.items, 0);
}

TEST_F(Depot, TheFunctionIsLookedUpBeforeTheArgumentsAreMade) {
    install("");
    written_by([] { EXPECT_EQ(PGM_PYTHON_MGR::sync_p4file("\xFF", "x"), ""); });
    EXPECT_EQ(receiver.reports, (REPORTS{"error: Fail to find function sync_p4file"}));
}

TEST_F(Depot, TheListenerStartsAfterTheLookup) {
    install(tools() +
            "note('import: ' + listener())\n"
            "def __getattr__(name):\n"
            "    if name != 'sync_p4file':\n"
            "        raise AttributeError(name)\n"
            "    note('lookup: ' + listener())\n"
            "    return lambda *a: note('call: ' + listener())\n");
    call();
    EXPECT_EQ(notes(), "import: no listener; lookup: no listener; call: listener; ");
    before.check();
}

TEST_F(Depot, ACallThatRaisesPostsItsReasonsWhileTheInterpreterRunsAndPrintsNothing) {
    install_body("send(b'first !@#$^&*() second')\n    raise ValueError('in call')");
    EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), ""); }), "");
    EXPECT_EQ(receiver.reports, (REPORTS{"error 20351: Fail to execute function sync_p4file in "
                                         "file pgm_python_common_function",
                                         "error 20353: first", "error 20353: second"}));
    EXPECT_EQ(receiver.states, (REPORTS(3, running())));
    before.check();
}

TEST_F(Depot, AScriptThatLeavesHasFailed) {
    for (const char* status : {"", "0", "3", "'text'"}) {
        receiver.reports.clear();
        install_body("send(b'')\n    sys.exit(" + std::string(status) + ")");
        EXPECT_EQ(written_by([&] { EXPECT_EQ(call(), ""); }), "");
        EXPECT_EQ(receiver.reports, call_failure("sync_p4file", module));
        before.check();
    }
}

TEST_F(Depot, AScriptThatCannotBeLoadedIsNotCompleted) {
    install("raise ValueError('at import')\n");
    expect_traceback_and(
        "ValueError: at import\nerror: Fail to load module pgm_python_common_function\n",
        written_with_reports_by([&] { EXPECT_EQ(call(), ""); }));
    written_by([&] { call(); });
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
}

TEST_F(Depot, AMissingFunctionIsNotCompleted) {
    install("");
    const std::string text = written_with_reports_by([&] { EXPECT_EQ(call(), ""); });
    expect_exception_and("AttributeError", "error: Fail to find function sync_p4file\n", text);
    written_by([&] { call(); });
    EXPECT_EQ(receiver.states, (REPORTS{running()}));
    before.check();
}

TEST_F(Depot, TheResultIsReleasedBeforeTheCompletion) {
    install(tools() +
            "class Answer(str):\n"
            "    def __del__(self): note('released: ' + listener())\n"
            "def sync_p4file(*a): return Answer('x')\n");
    EXPECT_EQ(call(), "x");
    EXPECT_EQ(notes(), "released: listener; ");
}

TEST_F(Depot, TheTupleIsReleasedAfterTheCompletionAndBeforeTheFunction) {
    install(tools() +
            "class Function:\n"
            "    def __call__(self, *a):\n"
            "        global text\n"
            "        text = a[0]\n"
            "        return ''\n"
            "    def __del__(self): note('%s, text %d' % (listener(), sys.getrefcount(text) - 2))\n"
            "def __getattr__(name):\n"
            "    if name != 'sync_p4file':\n"
            "        raise AttributeError(name)\n"
            "    return Function()\n");
    call();
    EXPECT_EQ(notes(), "no listener, text 0; ");
    before.check();
}

TEST_F(Depot, TupleFunctionModuleAndNameAreReleasedInThisOrder) {
    install(tools() +
            "import types\n"
            // What is here beside the call's own references stays as it is.
            "def held(): return 'text %d, name %d' % (sys.getrefcount(text) - 2,\n"
            "                                         sys.getrefcount(name) - others)\n"
            "class Function:\n"
            "    def __call__(self, *a):\n"
            "        global text, others\n"
            "        text = a[0]\n"
            "        del sys.modules[name]\n"
            "        others = sys.getrefcount(name) - 1\n"
            "        return ''\n"
            "    def __del__(self): note('function, ' + held())\n"
            "class Module(types.ModuleType):\n"
            "    def __getattr__(self, attribute):\n"
            "        if attribute != 'sync_p4file':\n"
            "            raise AttributeError(attribute)\n"
            "        return Function()\n"
            "    def __del__(self): note('module, ' + held())\n"
            "name = __name__\n"
            "others = text = None\n"
            "sys.modules[name] = Module('stand-in')\n"
            "import atexit\n"
            "atexit.register(lambda: note('end, ' + held()))\n");
    call();
#if PY_VERSION_HEX >= 0x030C0000
    GTEST_SKIP() << "the module's name is immortal in this Python";
#endif
    EXPECT_EQ(notes(), "function, text 0, name 1; module, text 0, name 1; end, text 0, name 0; ");
    before.check();
}

typedef Depot DepotDeathTest;

TEST_F(DepotDeathTest, WithoutAReceiverAMissingFolderAborts) {
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(PGM_PYTHON_MGR::sync_p4file("", ""),
                 "internal error: folder must be specified \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 941\\]\n");
}

}  // namespace
