#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support.h"

namespace {

const std::string build_folder = std::filesystem::path(PGM_PYTHON_PROGRAMS).parent_path().string();
const std::string example_scripts = build_folder + "/common/programmer/python/";

// The tools as a user starts them: no folder named, UTF-8 output, unless `environment` says else.
PROGRAM_RESULT start(const std::string& tool, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment) {
    std::vector<std::string> all = {"PGM_COMMON_PROGRAMMER_DIR=", "PGM_UNSHIPPED_PROGRAMMER_DIR=",
                                    "PGM_BIN_DIR=", utf8_output_setting()};
    all.insert(all.end(), environment.begin(), environment.end());
    return run_program(PGM_PYTHON_PROGRAMS "/" + tool, arguments, all);
}

PROGRAM_RESULT run(const std::vector<std::string>& arguments,
                   const std::vector<std::string>& environment = {}) {
    return start("pgm_python_run", arguments, environment);
}

PROGRAM_RESULT call(const std::vector<std::string>& arguments,
                    const std::vector<std::string>& environment = {}) {
    return start("pgm_python_call", arguments, environment);
}

// A run that gave `output`, reported nothing and ended with 0.
void expect_success(const PROGRAM_RESULT& result, const std::string& output) {
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.errors, "");
}

// A run that gave no result, reported exactly `errors` and ended with `status`.
void expect_failure(const PROGRAM_RESULT& result, int status, const std::string& errors) {
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
}

bool starts_with(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The reports of a script that raised: its traceback, then the lines.
void expect_traceback_and(const std::string& errors, const std::string& lines) {
    EXPECT_TRUE(starts_with(errors, "Traceback (most recent call last):\n")) << errors;
    EXPECT_TRUE(ends_with(errors, lines)) << errors;
}

std::string internal_error_line(const std::string& text, int line) {
    return internal_error(text, line) + "\n";
}

// Tells its arguments, in ASCII.
const char print_arguments[] =
    "import sys\n"
    "for argument in sys.argv:\n"
    "    print(ascii(argument))\n";

}  // namespace

TEST(RunTool, PrintsWhatTheCodePrints) {
    expect_success(run({"-c", "print('a b')"}), "a b\n");
}

TEST(RunTool, RunsOnlyTheFirstTextAfterC) {
    expect_success(run({"-c", "print('first')", "print('second')"}), "first\n");
}

TEST(RunTool, WantsCodeAfterC) {
    expect_failure(run({"-c"}), 1, "error: This is command mode, command(s) must be specified\n");
}

TEST(RunTool, TellsItsUseWithoutArguments) {
    expect_failure(run({}), 1,
                   "error: No argument is specified.\n"
                   "     1) If you want to execute a script, there must be at least one argument "
                   "specified as python file script\n"
                   "     2) If you want to run in command mode, first argument must be \"-c\", "
                   "followed by command(s)\n");
}

TEST(RunTool, HasNoOptionsOfItsOwn) {
    expect_failure(run({"--help"}), 1, "error: Python script --help doest not exist\n");
}

TEST(RunTool, EndsAsTheCodeExits) {
    expect_success(run({"-c", "import sys; print('x'); sys.exit(0)"}), "x\n");
    expect_success(run({"-c", "import sys; sys.exit()"}), "");
    expect_failure(run({"-c", "import sys; sys.exit(3)"}), 1, "");
    expect_failure(run({"-c", "import sys; sys.exit('text')"}), 1, "text\n");
}

TEST(RunTool, ShowsTheTracebackOfCodeThatRaises) {
    const PROGRAM_RESULT result = run({"-c", "raise ValueError('no')"});
    EXPECT_EQ(result.status, 1);
    expect_traceback_and(result.errors, "\nValueError: no\n");
}

TEST(RunTool, ShowsTheSyntaxErrorOfCode) {
    const PROGRAM_RESULT result = run({"-c", "print('a'"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors.find("SyntaxError: "), std::string::npos) << result.errors;
    EXPECT_EQ(result.errors.find("error: "), std::string::npos) << result.errors;
}

TEST(RunTool, RefusesOtherExtensions) {
    expect_failure(run({"tool.txt"}), 1,
                   "error: First argument tool.txt must be Programmer default Python script name "
                   "without extension or Python script with extension of .py or .pyc\n");
}

TEST(RunTool, TellsOfAnUnknownScript) {
    expect_failure(run({"unknown"}), 1, "error: Python script unknown doest not exist\n");
    expect_failure(run({"no/such.py"}), 1, "error: Python script no/such.py doest not exist\n");
}

TEST(RunTool, FindsADefaultScriptBesideTheProgram) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("data.bin", "abc");
    const PROGRAM_RESULT result = run({"norvane_sign", "inspect", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find(file), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("3 bytes"), std::string::npos) << result.output;
    EXPECT_EQ(result.errors, "");
}

TEST(RunTool, UsesTheFoldersBesideTheProgram) {
    expect_success(run({"-c",
                        "import os, sys\n"
                        "print(*sys.path[:3], os.environ['PGM_PYTHON_BIN_DIR'], sep='\\n')"}),
                   build_folder + "/unshipped/programmer/python/source\n" + build_folder +
                       "/common/programmer/python/source\n" + build_folder +
                       "/common/programmer/python\n" + build_folder + "/bin\n");
}

TEST(RunTool, FindsADefaultScriptInTheNamedFolder) {
    const TEST_INSTALLATION installation;
    const std::string script =
        installation.common_script("python/norvane_sign.py", print_arguments);
    expect_success(
        run({"norvane_sign", "x"}, {"PGM_COMMON_PROGRAMMER_DIR=" + installation.common()}),
        "'" + script + "'\n'x'\n");
}

TEST(RunTool, ShowsTheReasonsOfADefaultScript) {
    const std::string missing = build_folder + "/no such file";
    const PROGRAM_RESULT result = run({"norvane_sign", "inspect", missing});
    expect_failure(result, 1,
                   "error 20354: Fail to execute file " + example_scripts +
                       "norvane_sign.py\nerror 20353: file " + missing + " does not exist\n");
}

TEST(RunTool, ShowsEachReasonAsAMessage) {
    const TEMPORARY_FOLDER folder;
    const std::string script =
        folder.write("fails.py", std::string(send_function) +
                                     "send(b'first !@#$^&*() second reason')\n"
                                     "print('printed')\n"
                                     "raise SystemExit(1)\n");
    const PROGRAM_RESULT result = run({script});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "printed\n");
    EXPECT_EQ(result.errors, "error 20354: Fail to execute file " + script +
                                 "\nerror 20353: first\nerror 20353: second reason\n");
}

TEST(RunTool, DropsTheTextOfAScriptThatSucceeds) {
    const TEMPORARY_FOLDER folder;
    const std::string script =
        folder.write("succeeds.py", std::string(send_function) + "send(b'nothing wrong')\n");
    expect_success(run({script}), "");
}

TEST(RunTool, ShowsTracebackAndMessageOfAScriptThatRaises) {
    const TEMPORARY_FOLDER folder;
    const std::string script = folder.write("raises.py", "raise ValueError('no')\n");
    const PROGRAM_RESULT result = run({script});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    expect_traceback_and(result.errors,
                         "\nValueError: no\nerror 20354: Fail to execute file " + script + "\n");
}

TEST(RunTool, EndsAsTheScriptExits) {
    const TEMPORARY_FOLDER folder;
    const std::string script =
        folder.write("exits.py",
                     "import sys\n"
                     "exits = {'0': 0, '3': 3, 'text': 'text', 'none': None}\n"
                     "sys.exit(exits[sys.argv[1]])\n");
    const std::string message = "error 20354: Fail to execute file " + script + "\n";
    expect_success(run({script, "0"}), "");
    expect_success(run({script, "none"}), "");
    expect_failure(run({script, "3"}), 1, message);
    expect_failure(run({script, "text"}), 1, "text\n" + message);
}

TEST(RunTool, RunsACompiledScript) {
    const TEMPORARY_FOLDER folder;
    const std::string script = folder.write("compiled.pyc", "");
    write_compiled(script, print_arguments);
    expect_success(run({script, "x"}), "'" + script + "'\n'x'\n");
}

TEST(RunTool, PassesArgumentsAsTheyAre) {
    const TEMPORARY_FOLDER folder("f\u00fcr zwei");
    const std::string script = folder.write("z\u00e4hlt alle.py", print_arguments);
    std::string shown = "'" + script + "'";
    shown = std::regex_replace(shown, std::regex("\u00fc"), "\\xfc");
    shown = std::regex_replace(shown, std::regex("\u00e4"), "\\xe4");
    expect_success(run({script, "a b", "\u00fc", "\u6f22", "", "-c", "--help", "\"'\\"}),
                   shown + "\n'a b'\n'\\xfc'\n'\\u6f22'\n''\n'-c'\n'--help'\n'\"\\'\\\\'\n");
}

TEST(RunTool, PrintsTextOutsideAscii) {
    expect_success(run({"-c", "print('\u00fc \u6f22')"}), "\u00fc \u6f22\n");
}

TEST(RunTool, TakesTheLocaleOfTheEnvironment) {
    if (!environment_tells_locale()) {
        GTEST_SKIP() << "the environment does not tell the locale on Windows";
    }
    const std::string code = "import locale; print(locale.setlocale(locale.LC_TIME))";
    expect_success(run({"-c", code}), "C.UTF-8\n");
    expect_success(run({"-c", code}, {"LC_ALL=C"}), "C\n");
}

// Python reads such an environment as UTF-8.
TEST(RunTool, WorksInTheCLocale) {
    const TEMPORARY_FOLDER folder("f\u00fcr zwei");
    const std::string script =
        folder.write("z\u00e4hlt.py", "import sys\nprint(ascii(sys.argv[1]))\n");
    expect_success(run({script, "\u00fc"}, {"LC_ALL=C"}), "'\\xfc'\n");
    expect_success(run({"-c", "print(ascii('\u00fc'))"}, {"LC_ALL=C"}), "'\\xfc'\n");
}

// Here Python knows no letters but the ASCII ones.
TEST(RunTool, FailsInOrderWhenThePathCannotBeRead) {
    if (!environment_tells_locale()) {
        GTEST_SKIP() << "paths are text on Windows, whatever the locale";
    }
    const TEMPORARY_FOLDER folder("f\u00fcr zwei");
    const std::string script = folder.write("z\u00e4hlt.py", "import textwrap\n");
    const PROGRAM_RESULT result =
        run({script}, {"LC_ALL=C", "PYTHONUTF8=0", "PYTHONCOERCECLOCALE=0"});
    EXPECT_EQ(result.status, 1);
    expect_traceback_and(result.errors, "error 20354: Fail to execute file " + script + "\n");
}

TEST(RunTool, EndsAfterAnInternalError) {
    const TEMPORARY_FOLDER folder;
    const std::string script = folder.write("script", "print('never')\n");
    expect_failure(run({script}), 3,
                   internal_error_line(
                       "Python script " + script + " must have extension of .py or .pyc", 1781));
}

TEST(RunTool, TakesAnEmptyNameForAnInternalError) {
    expect_failure(run({""}), 3, internal_error_line("original_file.size()", 170));
}

TEST(CallTool, AnswersTheQueriesFromTheExampleInstallation) {
    expect_success(call({"query_opn_name", "NRV010-C100-I2"}), "257\n");
    expect_success(call({"query_opn_enum", "257"}), "NRV010-C100-I2\n");
    expect_success(call({"query_opn_enum", "0x101"}), "NRV010-C100-I2\n");
    expect_success(call({"query_opn_enum", "0X00000101"}), "NRV010-C100-I2\n");
}

TEST(CallTool, KnowsCodesWithTheHighestBit) {
    expect_success(call({"query_opn_name", "NRV060-F484-ES"}), "2147484417\n");
    expect_success(call({"query_opn_enum", "2147484417"}), "NRV060-F484-ES\n");
    expect_success(call({"query_opn_enum", "0x80000301"}), "NRV060-F484-ES\n");
}

TEST(CallTool, TellsTheNameOfAUser) {
    // The fifth field of the user's row, up to a comma; the account's name when it is empty.
    std::ifstream users("/etc/passwd");
    if (!users) {
        GTEST_SKIP() << "there is no /etc/passwd here";
    }
    std::string row;
    while (std::getline(users, row) && !starts_with(row, "root:")) {
    }
    std::smatch fields;
    ASSERT_TRUE(
        std::regex_match(row, fields, std::regex("root:[^:]*:[^:]*:[^:]*:([^:,]*)[^:]*:.*")));
    const std::string name = fields[1].length() == 0 ? "root" : fields[1].str();
    expect_success(call({"get_username", "root"}), name + "\n");
}

TEST(CallTool, PrintsTextOutsideAscii) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_username(user):\n"
                               "    return 'J\u00fcrgen ' + user\n");
    for (const char* const locale : {"LC_ALL=C.UTF-8", "LC_ALL=C"}) {
        expect_success(call({"get_username", "\u00e4 b"},
                            {"PGM_COMMON_PROGRAMMER_DIR=" + installation.common(), locale}),
                       "J\u00fcrgen \u00e4 b\n");
    }
}

TEST(CallTool, ReportsAFailedOperation) {
    const std::string message = "error 20351: Fail to execute function ";
    const std::string file = " in file pgm_python_common_function\n";
    expect_failure(call({"query_opn_name", "XYZ"}), 1, message + "query_opn_name" + file);
    expect_failure(call({"query_opn_name", ""}), 1, message + "query_opn_name" + file);
    expect_failure(call({"query_opn_enum", "1"}), 1, message + "query_opn_enum" + file);
    expect_failure(call({"query_opn_enum", "0xFFFFFFFF"}), 1, message + "query_opn_enum" + file);
    expect_failure(call({"get_username", "no such user"}), 1, message + "get_username" + file);
}

TEST(CallTool, ReportsAScriptThatCannotBeLoaded) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc", "import no_such_module\n");
    const PROGRAM_RESULT result =
        call({"query_opn_name", "X"}, {"PGM_COMMON_PROGRAMMER_DIR=" + installation.common()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    expect_traceback_and(result.errors,
                         "\nModuleNotFoundError: No module named 'no_such_module'\n"
                         "error: Fail to load module pgm_python_common_function\n");
}

TEST(CallTool, ReportsAnAnswerOfNoUse) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_username(user): return None\n"
                               "def query_opn_enum(code): return 7\n"
                               "def query_opn_name(name): return 'x'\n");
    const std::vector<std::string> environment = {"PGM_COMMON_PROGRAMMER_DIR=" +
                                                  installation.common()};
    const std::string message = "error: the script gave no usable answer\n";
    expect_failure(call({"get_username", "x"}, environment), 1, message);
    expect_failure(call({"query_opn_enum", "1"}, environment), 1, message);
    expect_failure(call({"query_opn_name", "x"}, environment), 1, message);
}

TEST(CallTool, EndsAfterAnInternalError) {
    const TEMPORARY_FOLDER empty;
    const std::vector<std::string> environment = {"PGM_COMMON_PROGRAMMER_DIR=" + empty.path()};
    const std::string text =
        "Python script " + empty.path() + "/python/pgm_python_common_function.pyc doest not exist";
    expect_failure(call({"get_username", "x"}, environment), 3, internal_error_line(text, 819));
    expect_failure(call({"query_opn_enum", "1"}, environment), 3, internal_error_line(text, 723));
    expect_failure(call({"query_opn_name", "x"}, environment), 3, internal_error_line(text, 771));
}

TEST(CallTool, WritesBytesToStandardOutputAsTheyAre) {
    const TEST_INSTALLATION installation;
    const std::string content("\r\n\n\x1A\0\r\xFF\n", 8);
    const std::string file = installation.folder().write("design.bin", content);
    const std::string script = installation.common_script(
        "python/change.py", "def add_a_line(data): return data + b'\\n'\n");
    const PROGRAM_RESULT result =
        call({"modify_bitstream", file, script, "add_a_line", "--out", "-"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output_bytes, content + "\n");
    EXPECT_EQ(result.errors, "");
}

TEST(CallTool, ReportsAResultThatCannotBeWritten) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "there is no /dev/full here";
    }
    const PROGRAM_RESULT result =
        run_program("sh", {"-c", "exec \"$0\" query_opn_name NRV010-C100-I2 >/dev/full",
                           PGM_PYTHON_PROGRAMS "/pgm_python_call"});
    expect_failure(result, 1, "error: the result cannot be written to standard output\n");
}

TEST(CallTool, ExplainsItself) {
    for (const char* const option : {"--help", "-h"}) {
        const PROGRAM_RESULT result = call({option});
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.output.find("query_opn_name"), std::string::npos) << result.output;
        EXPECT_EQ(result.errors, "");
    }
}

// One subcommand an operation, save for the one that the other tool is for.
TEST(CallTool, HasASubcommandForEachOperation) {
    std::ifstream stream(PGM_PYTHON_SOURCES "/pgm/pgm_python/pgm_python_mgr.h");
    const std::string header((std::istreambuf_iterator<char>(stream)),
                             std::istreambuf_iterator<char>());
    const std::regex declaration("PGM_PYTHON_API [^;(]*\\b(\\w+)\\(");
    std::set<std::string> operations;
    for (std::sregex_iterator found(header.begin(), header.end(), declaration), end; found != end;
         ++found) {
        operations.insert((*found)[1]);
    }
    ASSERT_EQ(operations.erase("run_python_file"), 1U);
    ASSERT_EQ(operations.count("query_opn_name"), 1U);

    const std::string help = call({"--help"}).output;
    const std::size_t list = help.find("Subcommands:\n");
    ASSERT_NE(list, std::string::npos) << help;
    std::istringstream lines(help.substr(list));
    std::set<std::string> subcommands;
    const std::regex row("  (\\w+)( .*)?");
    std::smatch name;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, name, row)) {
            subcommands.insert(name[1]);
        }
    }
    EXPECT_EQ(subcommands, operations);

    for (const std::string& operation : operations) {
        const PROGRAM_RESULT result = call({operation, "--help"});
        EXPECT_EQ(result.status, 0) << operation;
        EXPECT_NE(result.output.find("pgm_python_call " + operation), std::string::npos)
            << result.output;
        EXPECT_EQ(result.errors, "");
    }
}

TEST(CallTool, RefusesBadUsage) {
    const std::vector<std::vector<std::string>> usages = {
        {},
        {"no_such_operation"},
        {"--no-such-option"},
        {"query_opn_name"},
        {"query_opn_enum"},
        {"get_username"},
        {"query_opn_name", "A", "B"},
        {"query_opn_name", "A", "query_opn_enum", "1"},
    };
    for (const std::vector<std::string>& usage : usages) {
        const PROGRAM_RESULT result = call(usage);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(usage);
        EXPECT_EQ(result.output, "") << ::testing::PrintToString(usage);
        EXPECT_TRUE(ends_with(result.errors, "Run with --help for more information.\n"))
            << ::testing::PrintToString(usage) << result.errors;
    }
}

TEST(CallTool, RefusesWhatIsNoNumberOf32Bits) {
    for (const char* const text : {"4294967296", "0x100000000", "18446744073709551873", "-1", "+1",
                                   "1.5", "1e3", "abc", "", " 1", "1 ", "0x", "0x-1", "0xg"}) {
        const PROGRAM_RESULT result = call({"query_opn_enum", text});
        EXPECT_EQ(result.status, 2) << text;
        EXPECT_EQ(result.output, "") << text;
        EXPECT_EQ(result.errors, "CODE: '" + std::string(text) +
                                     "' is not a number from 0 to 0xFFFFFFFF\n"
                                     "Run with --help for more information.\n");
    }
    EXPECT_EQ(call({"query_opn_enum", "--", "-18446744073709551359"}).status, 2);
}
