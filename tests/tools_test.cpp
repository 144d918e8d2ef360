#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tool_runs.h"

namespace {

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

TEST(RunTool, ExplainsItself) {
    const PROGRAM_RESULT result = run({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    for (const char* const text : {"SCRIPT", "ARGUMENT", "--help", "--version", "--list", "--json",
                                   "--traceback", "--calls", "Print this help and exit\n"}) {
        EXPECT_NE(result.output.find(text), std::string::npos) << text << result.output;
    }
}

TEST(RunTool, HasNoOtherOptionsOfItsOwn) {
    for (const char* const option : {"-h", "--list-all", "-", "--jso"}) {
        expect_failure(run({option}), 1,
                       "error: Python script " + std::string(option) + " doest not exist\n");
    }
}

TEST(RunTool, EndsItsOptionsAtTwoDashes) {
    expect_failure(run({"--", "--help"}), 1, "error: Python script --help doest not exist\n");
    expect_failure(run({"--traceback", "--", "--list"}), 1,
                   "error: Python script --list doest not exist\n");
    expect_success(run({"--", "-c", "print('a')"}), "a\n");
    expect_failure(run({"--", "--"}), 1, "error: Python script -- doest not exist\n");
}

TEST(RunTool, LeavesOptionsAfterTheScriptToTheScript) {
    const TEMPORARY_FOLDER folder;
    const std::string script = folder.write("tells.py", print_arguments);
    expect_success(run({"--traceback", script, "--help", "--version", "--list", "--json", "--"}),
                   "'" + script + "'\n'--help'\n'--version'\n'--list'\n'--json'\n'--'\n");
}

TEST(RunTool, ListsTheDefaultScripts) {
    const TEST_INSTALLATION installation;
    const std::string sign = installation.common_script("python/norvane_sign.py", "");
    const std::string itool = installation.unshipped_script("python/pgm_internal_tool.pyc", "");
    const PROGRAM_RESULT result = run({"--list"}, environment_of(installation));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    std::istringstream lines(result.output);
    std::size_t count = 0;
    std::size_t installed = 0;
    for (std::string name, path, state; lines >> name >> path && std::getline(lines, state);) {
        ++count;
        state = state.substr(state.find_first_not_of(' '));
        EXPECT_EQ(state, path == sign || path == itool ? "installed" : "not installed") << name;
        installed += state == "installed" ? 1 : 0;
        EXPECT_EQ(name == "itool", path == itool) << path;
    }
    EXPECT_EQ(count, 12U);
    EXPECT_EQ(installed, 2U);

    const PROGRAM_RESULT json = run({"--json", "--list"}, environment_of(installation));
    EXPECT_EQ(json.status, 0);
    EXPECT_TRUE(starts_with(json.output, "{\"scripts\":[{\"name\":\"tarn_card_sign\",\"file\":\"" +
                                             installation.common() +
                                             "/python/tarn_card_sign.py\",\"installed\":false},"))
        << json.output;
    EXPECT_NE(
        json.output.find("{\"name\":\"itool\",\"file\":\"" + itool + "\",\"installed\":true}"),
        std::string::npos)
        << json.output;
}

TEST(RunTool, SetsTheSwitchesOfTheLibrary) {
    const ENVIRONMENT_VALUE unset("PGM_PYTHON_CALLS", nullptr);
    const std::string code =
        "import os; print(*(os.environ.get('PGM_PYTHON_' + name) for name in ('TRACEBACK', "
        "'CALLS')))";
    expect_success(run({"--traceback", "--calls", "fresh", "-c", code}), "1 fresh\n");
    expect_success(run({"--calls=fresh", "-c", code}, {"PGM_PYTHON_CALLS=kept"}), "None fresh\n");
    expect_success(run({"-c", code}), "None None\n");
    expect_failure(run({"--calls", "none", "-c", code}), 2,
                   "--calls: 'none' is not fresh, kept or worker\n"
                   "Run with --help for more information.\n");
    EXPECT_EQ(run({"--calls"}).status, 2);
}

TEST(RunTool, GivesMessagesAsJson) {
    const TEMPORARY_FOLDER folder;
    const std::string script =
        folder.write("fails.py", std::string(send_function) +
                                     "send(b'say \"no\"\\twhy !@#$^&*() second')\n"
                                     "print('printed')\n"
                                     "raise SystemExit(1)\n");
    const PROGRAM_RESULT result = run({"--json", script});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(
        result.output,
        "{\"status\":1,\"messages\":[{\"kind\":\"error\",\"text\":\"Fail to execute file " +
            script +
            "\",\"number\":20354},{\"kind\":\"error\",\"text\":\"say \\\"no\\\"\\u0009why\","
            "\"number\":20353},{\"kind\":\"error\",\"text\":\"second\",\"number\":20353}]}\n");
    EXPECT_EQ(result.errors, "printed\n");
    EXPECT_EQ(run({"--json", "-c", "print(1)"}).output, "{\"status\":0,\"messages\":[]}\n");
    EXPECT_EQ(
        run({"--json", "--calls", "x"}).output,
        "{\"status\":2,\"messages\":[{\"kind\":\"usage\",\"text\":\"--calls: 'x' is not fresh, "
        "kept or worker\\nRun with --help for more information.\"}]}\n");
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

// What the library takes for internal errors.
TEST(RunTool, TellsMistakesInWords) {
    const TEMPORARY_FOLDER folder;
    const std::string script = folder.write("script", "print('never')\n");
    expect_failure(run({script}), 2,
                   "error: file '" + script +
                       "' has not the extension .py or .pyc, which a script must have\n");
    expect_failure(run({""}), 2, "error: the script's name is empty\n");
}

TEST(RunTool, EndsAfterAnInternalError) {
    if (std::filesystem::path::preferred_separator == '\\') {
        GTEST_SKIP() << "no folder can have such a name here";
    }
    const TEMPORARY_FOLDER folder("quote\"s");
    const std::string script = folder.write("script.py", "print('never')\n");
    const PROGRAM_RESULT result = run({script});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors.find("internal error: "), std::string::npos) << result.errors;
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
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def read_mif(file, continuous): return bytearray()\n");
    expect_failure(call({"read_mif", "x"}, environment_of(installation)), 3,
                   internal_error_line("return_size == 3", 676));
}

TEST(CallTool, TellsAMissingScriptInWords) {
    const TEMPORARY_FOLDER empty;
    const std::vector<std::string> environment = {"PGM_COMMON_PROGRAMMER_DIR=" + empty.path()};
    const std::string content = empty.write("content.bin", "12345678");
    const std::string hint =
        " is not installed; PGM_COMMON_PROGRAMMER_DIR names the common folder\n";
    const std::string common = "/python/pgm_python_common_function.pyc";
    const std::vector<std::pair<std::vector<std::string>, std::string>> calls = {
        {{"get_username", "x"}, common},
        {{"query_opn_enum", "1"}, common},
        {{"query_opn_name", "x"}, common},
        {{"read_mif", "x"}, common},
        {{"get_zek_root_key", "x"}, common},
        {{"sync_p4file", "x", "y"}, common},
        {{"generate_compact_cert", "1", "2", content}, "/python/compact_cert_sign.pyc"},
        {{"sign_compact_ccert", content}, "/python/norvane_sign.py"},
        {{"verify_compact_cert_keychain", content}, "/python/compact_cert_sign.pyc"},
        {{"verify_compact_cert_keychain", content, "--script", "own.py"}, "/python/own.py"},
        {{"generate_rim", "x", "y", "1", "z"}, "/python/rim_generator.pyc"},
        {{"get_nwfmt_data", "own.py", "get_bram_chunks"}, "nwfmt/own.py"},
    };
    for (const auto& [arguments, script] : calls) {
        expect_failure(call(arguments, environment), 2,
                       "error: script " + empty.path() + script + hint);
    }
    expect_failure(call({"modify_bitstream", content, "norvane_sign", "f"}, environment), 2,
                   "SCRIPT: 'norvane_sign' is neither a file nor an installed default script\n"
                   "Run with --help for more information.\n");
    expect_failure(call({"execute_mysql", "--", "x"},
                        {environment[0], "PGM_UNSHIPPED_PROGRAMMER_DIR=" + empty.path()}),
                   2, "error: the database script is not installed\n");
}

TEST(CallTool, TellsMistakesInWords) {
    const TEMPORARY_FOLDER folder;
    const std::string seven = folder.write("seven.bin", "1234567");
    const std::string nothing = folder.write("nothing.bin", "");
    const std::string eight = folder.write("eight.bin", "12345678");
    const std::string key = folder.write("key.zky", "k");
    const std::string script = folder.write("own.py", "");
    const std::string size = " bytes, but the size must be a positive multiple of 8";
    const std::string missing = folder.path() + "/missing.pem";
    const std::vector<std::pair<std::vector<std::string>, std::string>> calls = {
        {{"generate_compact_cert", "1", "2", seven}, "CONTENT: file '" + seven + "' has 7" + size},
        {{"generate_compact_cert", "1", "2", nothing},
         "CONTENT: file '" + nothing + "' has 0" + size},
        {{"sign_compact_ccert", seven}, "CERTIFICATE: file '" + seven + "' has 7" + size},
        {{"verify_compact_cert_keychain", seven}, "CERTIFICATE: file '" + seven + "' has 7" + size},
        {{"sign_compact_ccert", eight, "--pem", missing},
         "--pem: file '" + missing + "' does not exist"},
        {{"sign_compact_ccert", eight, "--pem", key},
         "--pem: file '" + key + "' has not the extension .pem"},
        {{"generate_compact_cert", "1", "2", eight, "--zky", eight},
         "--zky: file '" + eight + "' has not the extension .zky"},
        {{"verify_compact_cert_keychain", eight, "--script", ""}, "--script: must not be empty"},
        {{"get_zek_root_key", ""}, "ZEK: must not be empty"},
        {{"sync_p4file", "", "x"}, "FOLDER: must not be empty"},
        {{"sync_p4file", "x", ""}, "SOURCE: must not be empty"},
        {{"generate_rim", "", "x", "1", "y"}, "RBF: must not be empty"},
        {{"generate_rim", "x", "", "1", "y"}, "FAMILY: must not be empty"},
        {{"generate_rim", "x", "y", "1", ""}, "OUTPUT: must not be empty"},
        {{"execute_mysql", "--", "a", ""}, "ARGUMENT: must not be empty"},
        {{"get_nwfmt_data", "", "get_bram_chunks"}, "SCRIPT: must not be empty"},
        {{"get_nwfmt_data", "network_format.py", ""}, "FUNCTION: must not be empty"},
        {{"get_nwfmt_data", "network_format.py", "get_chunks"},
         "FUNCTION: 'get_chunks' is none of the network format's"},
        {{"modify_bitstream", eight, "", "f"}, "SCRIPT: must not be empty"},
        {{"modify_bitstream", eight, script, ""}, "FUNCTION: must not be empty"},
        {{"modify_bitstream", eight, script, "f", "--", ""}, "ARGUMENT: must not be empty"},
        {{"modify_bitstream", eight, seven, "f"},
         "SCRIPT: '" + seven + "' has not the extension .py or .pyc"},
        {{"modify_bitstream", eight, script, "f", "--out", ""}, "--out: must not be empty"},
        {{"--calls", "some", "query_opn_name", "x"},
         "--calls: 'some' is not fresh, kept or worker"},
    };
    for (const auto& [arguments, mistake] : calls) {
        expect_failure(call(arguments), 2, mistake + "\nRun with --help for more information.\n");
    }
}

TEST(CallTool, TellsWhyAFileCannotBeRead) {
    const TEMPORARY_FOLDER folder;
    const std::string missing = folder.path() + "/missing.bin";
    expect_failure(call({"sign_compact_ccert", missing}), 2,
                   "CERTIFICATE: file '" + missing +
                       "' cannot be read: No such file or directory\n"
                       "Run with --help for more information.\n");
    const PROGRAM_RESULT result = call({"sign_compact_ccert", folder.path()});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.errors.find("' cannot be read: "), std::string::npos) << result.errors;
}

// Whatever else the function returns, it gave no bytes.
TEST(CallTool, TellsThatItGotNoBytes) {
    const TEST_INSTALLATION installation;
    const std::string design = installation.folder().write("design.bin", "design");
    const std::string script =
        installation.common_script("python/change.py",
                                   "def as_bytes(data): return bytes(data)\n"
                                   "def none(data): return None\n"
                                   "def text(data): return 'text'\n"
                                   "def nothing(data): return bytearray()\n");
    const std::string message = "error: the script gave no bytes\n";
    for (const char* const function : {"as_bytes", "none", "text", "nothing"}) {
        expect_failure(call({"modify_bitstream", design, script, function, "--out", design}), 1,
                       message);
        EXPECT_EQ(installation.folder().read("design.bin"), "design") << function;
        expect_failure(call({"modify_bitstream", design, script, function}), 1, message);
        expect_failure(call({"modify_bitstream", design, script, function, "--out", "-"}), 1,
                       message);
    }

    installation.folder().write(
        "common/programmernwfmt/own.py",
        "def get_bram_chunks(*arguments): return (bytearray(b'x'),)\n"
        "def get_bram_hash_and_size(*arguments):\n"
        "    return [bytearray(b'x'), '5']\n"
        "def get_xcvr_hash_and_size(*arguments): return [bytearray(), 5]\n");
    const std::vector<std::string> environment = environment_of(installation);
    expect_failure(
        call({"get_nwfmt_data", "own.py", "get_bram_chunks", "--out", design}, environment), 1,
        message);
    expect_failure(
        call({"get_nwfmt_data", "own.py", "get_xcvr_hash_and_size", "--out", design}, environment),
        1, message);
    expect_failure(
        call({"get_nwfmt_data", "own.py", "get_bram_hash_and_size", "--out", design}, environment),
        1, "error: the script gave no size\n");
    EXPECT_EQ(installation.folder().read("design.bin"), "design");
}

TEST(CallTool, TakesAnEmptyImageForOne) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def read_mif(file, continuous): return [bytearray(), 8, 0]\n");
    const std::string out = installation.folder().path() + "/image.bin";
    expect_success(call({"read_mif", "x"}, environment_of(installation)),
                   "width 8, depth 0\n0 bytes\n");
    expect_success(call({"read_mif", "x", "--out", out}, environment_of(installation)),
                   "width 8, depth 0\n0 bytes written to " + out + "\n");
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(out)));
}

TEST(CallTool, LeavesAFileAloneWhereAnImageIsOfNoUse) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def read_mif(file, continuous): return eval(file)\n");
    const std::string out = installation.folder().write("image.bin", "precious");
    for (const char* const answer :
         {"[bytearray(), '5', None]", "[bytearray(b'abc'), 8, '3']", "[bytearray(b'abc'), None, 3]",
          "[bytearray(), 8, 3]", "[b'abc', 8, 3]"}) {
        expect_failure(call({"read_mif", answer, "--out", out}, environment_of(installation)), 1,
                       "error: the script gave no usable width, depth and image\n");
    }
    EXPECT_EQ(installation.folder().read("image.bin"), "precious");
}

TEST(CallTool, ShowsNothingOfARootKeyButItsSize) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_zek_root_key(file, text, key):\n"
                               "    key[:] = bytes(range(32))\n"
                               "    return True\n");
    expect_success(call({"get_zek_root_key", "x.zek"}, environment_of(installation)), "32 bytes\n");
    expect_success(
        call({"--json", "get_zek_root_key", "x.zek"}, environment_of(installation)),
        "{\"operation\":\"get_zek_root_key\",\"status\":0,\"size\":32,\"messages\":[]}\n");
    const PROGRAM_RESULT written =
        call({"get_zek_root_key", "x.zek", "--out", "-"}, environment_of(installation));
    EXPECT_EQ(written.output_bytes.size(), 32U);
    EXPECT_EQ(written.output_bytes.back(), '\x1F');
}

// What scripts print is no part of the bytes.
TEST(CallTool, KeepsBytesApartFromWhatScriptsPrint) {
    const TEST_INSTALLATION installation;
    const std::string design = installation.folder().write("design.bin", "design");
    const std::string script = installation.common_script("python/change.py",
                                                          "import os\n"
                                                          "def change(data):\n"
                                                          "    print('printed', flush=True)\n"
                                                          "    os.write(1, b'by a number\\n')\n"
                                                          "    os.system('echo by a child')\n"
                                                          "    return data + b'!'\n");
    const PROGRAM_RESULT result =
        call({"modify_bitstream", design, script, "change", "--out", "-"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output_bytes, "design!");
    EXPECT_EQ(result.errors, "printed\nby a number\nby a child\n");
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
    expect_failure(result, 1,
                   "error: the result cannot be written to standard output: No space left on "
                   "device\n");
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

TEST(CallTool, GivesResultsAsJson) {
    const std::string none = "\"messages\":[]}\n";
    expect_success(call({"--json", "query_opn_name", "NRV010-C100-I2"}),
                   "{\"operation\":\"query_opn_name\",\"status\":0,\"result\":257," + none);
    expect_success(
        call({"--json", "query_opn_enum", "257"}),
        "{\"operation\":\"query_opn_enum\",\"status\":0,\"result\":\"NRV010-C100-I2\"," + none);
    const TEST_INSTALLATION installation;
    installation.common_script(
        "python/pgm_python_common_function.pyc",
        "def read_mif(file, continuous):\n"
        "    print('printed')\n"
        "    return [bytearray(b'abc'), 8, 3]\n"
        "def get_username(user): return 'J\u00fcrgen \"J\" \\\\ ' + user + '\\n\\x01'\n");
    const std::string out = installation.folder().path() + "/image.bin";
    const PROGRAM_RESULT image =
        call({"--json", "read_mif", "x", "--out", out}, environment_of(installation));
    EXPECT_EQ(
        image.output,
        "{\"operation\":\"read_mif\",\"status\":0,\"width\":8,\"depth\":3,\"size\":3,\"file\":\"" +
            out + "\"," + none);
    EXPECT_EQ(image.errors, "printed\n");
    EXPECT_EQ(installation.folder().read("image.bin"), "abc");
    expect_success(call({"--json", "get_username", "x"}, environment_of(installation)),
                   "{\"operation\":\"get_username\",\"status\":0,\"result\":\"J\u00fcrgen "
                   "\\\"J\\\" \\\\ x\\n\\u0001\"," +
                       none);
}

TEST(CallTool, GivesMessagesAsJson) {
    const PROGRAM_RESULT failed = call({"--json", "query_opn_name", "XYZ"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output,
              "{\"operation\":\"query_opn_name\",\"status\":1,\"messages\":[{\"kind\":\"error\","
              "\"text\":\"Fail to execute function query_opn_name in file "
              "pgm_python_common_function\",\"number\":20351}]}\n");
    EXPECT_EQ(failed.errors, "");

    const PROGRAM_RESULT mistaken = call({"--json", "query_opn_enum", "x"});
    EXPECT_EQ(mistaken.status, 2);
    EXPECT_EQ(
        mistaken.output,
        "{\"status\":2,\"messages\":[{\"kind\":\"usage\",\"text\":\"CODE: 'x' is not a number "
        "from 0 to 0xFFFFFFFF\\nRun with --help for more information.\"}]}\n");
    EXPECT_EQ(mistaken.errors, "");

    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def read_mif(file, continuous): return bytearray()\n");
    const PROGRAM_RESULT internal = call({"--json", "read_mif", "x"}, environment_of(installation));
    EXPECT_EQ(internal.status, 3);
    EXPECT_EQ(internal.output,
              "{\"operation\":\"read_mif\",\"status\":3,\"messages\":[{\"kind\":\"internal error\","
              "\"text\":\"return_size == 3\",\"line\":676}]}\n");

    const PROGRAM_RESULT refused = call({"--json", "read_mif", "x", "--out", "-"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.output.find("bytes cannot go where the JSON goes"), std::string::npos);
}

TEST(Tools, TellTheirVersionAndPython) {
    const std::string python =
        run({"-c", "import platform; print(platform.python_version())"}).output;
    for (const char* const tool : {"pgm_python_run", "pgm_python_call"}) {
        const PROGRAM_RESULT result = start(tool, {"--version"}, {});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, "");
        const std::regex lines(std::string(tool) +
                               R"( \d+\.\d+\.\d+(?:-\d+-g[0-9a-f]+)?\nPython (\S+) \((.+)\)\n)");
        std::smatch fields;
        ASSERT_TRUE(std::regex_match(result.output, fields, lines)) << result.output;
        EXPECT_EQ(fields[1].str() + "\n", python);
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(fields[2].str())))
            << result.output;
    }
}

TEST(CallTool, SetsTheSwitchesOfTheLibrary) {
    const ENVIRONMENT_VALUE unset("PGM_PYTHON_CALLS", nullptr);
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "import os\n"
                               "def get_username(user):\n"
                               "    return ' '.join(str(os.environ.get('PGM_PYTHON_' + name))\n"
                               "                    for name in ('TRACEBACK', 'CALLS'))\n");
    const std::vector<std::string> environment = environment_of(installation);
    expect_success(call({"--traceback", "--calls", "fresh", "get_username", "x"}, environment),
                   "1 fresh\n");
    expect_success(call({"get_username", "x"}, environment), "None None\n");
}

TEST(CallTool, TellsWhatIsWrongWithALineOfABatch) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_username(user): return user\n");
    const std::string calls = installation.folder().write("calls.txt",
                                                          "\xEF\xBB\xBF"
                                                          "get_username one\r\nbadop\n");
    const std::string zero =
        installation.folder().write("zero.txt", std::string("get_username a\0b\n", 17));
    const PROGRAM_RESULT result = call({"--batch", calls}, environment_of(installation));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output.substr(0, result.output.find('\n')), "1: one");
    EXPECT_NE(result.errors.find(calls + ":2: The following argument was not expected: badop\n"),
              std::string::npos)
        << result.errors;
    const PROGRAM_RESULT of_zero = call({"--batch", zero}, environment_of(installation));
    EXPECT_EQ(of_zero.output, "1: failed, status 2\n");
    EXPECT_EQ(of_zero.errors,
              zero + ":1: a zero byte in the line\n" + zero + ": 1 call, 0 succeeded, 1 failed\n");
}

TEST(CallTool, HasFlagsWithoutValues) {
    for (const char* const flag : {"--json=1", "--json=false", "--traceback=0"}) {
        const PROGRAM_RESULT result = call({flag, "query_opn_enum", "257"});
        EXPECT_EQ(result.status, 2) << flag;
        EXPECT_EQ(result.output, "") << flag;
    }
}

TEST(CallTool, MakesACallALineOfABatch) {
    const TEST_INSTALLATION installation;
    const std::string script =
        installation.common_script("python/change.py",
                                   "def tell(data):\n"
                                   "    import sys\n"
                                   "    print('printed')\n"
                                   "    return bytearray(repr(sys.argv[1:]).encode())\n");
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def get_username(user): return user\n"
                               "def query_opn_name(name): raise ValueError(name)\n"
                               "def read_mif(file, continuous):\n"
                               "    return 7 if file == 'wrong' else [bytearray(b'abc'), 8, 3]\n");
    const std::string design = installation.folder().write("design.bin", "design");
    const std::string out = installation.folder().path() + "/an image.bin";
    const std::string told = installation.folder().path() + "/told";
    const std::string calls =
        installation.folder().write("calls.txt",
                                    "# a comment\n"
                                    "get_username 'two  words'\n"
                                    "\n"
                                    "   get_username a\\ b\"c 'd' \\\" \\e\"  # another\n"
                                    "query_opn_name x\n"
                                    "query_opn_enum x\r\n"
                                    "read_mif \"x\" --out '" +
                                        out +
                                        "'\r\n"
                                        "get_username 'open\n"
                                        "read_mif wrong\n"
                                        "read_mif x --out -\n"
                                        "sign_compact_ccert -\n"
                                        "--help\n"
                                        "modify_bitstream '" +
                                        design + "' '" + script + "' tell --out '" + told +
                                        "' -- '' \"\"\n"
                                        "modify_bitstream '" +
                                        design + "' '" + script + "' tell --out '" + told +
                                        "' -- 'a b' #c\n"
                                        "get_username 'line\\' end");
    const PROGRAM_RESULT result = call({"--batch", calls}, environment_of(installation));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "2: two  words\n"
              "4: a bc 'd' \" \\e\n"
              "5: failed, status 1\n"
              "6: failed, status 2\n"
              "7: width 8, depth 3\\n3 bytes written to " +
                  out +
                  "\n"
                  "8: failed, status 2\n"
                  "9: failed, status 3\n"
                  "10: failed, status 2\n"
                  "11: failed, status 2\n"
                  "12: failed, status 2\n"
                  "13: failed, status 2\n"
                  "14: 7 bytes written to " +
                  told +
                  "\n"
                  "15: failed, status 2\n");
    const std::string line = calls + ":";
    EXPECT_EQ(result.errors,
              line +
                  "5: error 20351: Fail to execute function query_opn_name in file "
                  "pgm_python_common_function\n" +
                  line + "6: CODE: 'x' is not a number from 0 to 0xFFFFFFFF\n" + line +
                  "8: no closing '\n" + line +
                  "9: " + internal_error_line("return_size == 3", 676) + line +
                  "10: --out: a call of a batch cannot write to standard output\n" + line +
                  "11: CERTIFICATE: a call of a batch cannot read the standard input\n" + line +
                  "12: The following argument was not expected: --help\n" + line +
                  "13: ARGUMENT: must not be empty\nprinted\n" + line +
                  "15: The following argument was not expected: end\n" + calls +
                  ": 13 calls, 4 succeeded, 9 failed\n");
    EXPECT_EQ(installation.folder().read("an image.bin"), "abc");
    EXPECT_EQ(installation.folder().read("told"), "['a b']");
}

TEST(CallTool, GivesTheResultsOfABatchAsJson) {
    const TEMPORARY_FOLDER folder;
    const std::string calls = folder.write("calls.txt",
                                           "query_opn_enum 257\n"
                                           "query_opn_name XYZ\n"
                                           "query_opn_name NRV010-C100-I2\n");
    const PROGRAM_RESULT result = call({"--json", "--batch", calls});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "{\"line\":1,\"operation\":\"query_opn_enum\",\"status\":0,\"result\":"
              "\"NRV010-C100-I2\",\"messages\":[]}\n"
              "{\"line\":2,\"operation\":\"query_opn_name\",\"status\":1,\"messages\":[{\"kind\":"
              "\"error\",\"text\":\"Fail to execute function query_opn_name in file "
              "pgm_python_common_function\",\"number\":20351}]}\n"
              "{\"line\":3,\"operation\":\"query_opn_name\",\"status\":0,\"result\":257,"
              "\"messages\":[]}\n");
    EXPECT_EQ(result.errors, calls + ": 3 calls, 2 succeeded, 1 failed\n");
}

TEST(CallTool, SucceedsWithABatchThatDoes) {
    const TEMPORARY_FOLDER folder;
    const std::string calls = folder.write("calls.txt", "query_opn_enum 257\n");
    const PROGRAM_RESULT result = call({"--batch", calls});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "1: NRV010-C100-I2\n");
    EXPECT_EQ(result.errors, calls + ": 1 call, 1 succeeded, 0 failed\n");
    const std::string nothing = folder.write("nothing.txt", "");
    EXPECT_EQ(call({"--batch", nothing}).status, 0);
    expect_failure(
        call({"--batch", folder.path() + "/missing"}), 2,
        "error: file '" + folder.path() + "/missing' cannot be read: No such file or directory\n");
    EXPECT_EQ(call({"--batch", calls, "query_opn_enum", "257"}).status, 2);
}
