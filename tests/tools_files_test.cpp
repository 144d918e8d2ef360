// What the tools do to files, where files are what they are on POSIX systems.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/tool_runs.h"

namespace {

constexpr mode_t permissions = 07777;

mode_t mode_of(const std::string& file) {
    struct stat what = {};
    EXPECT_EQ(::lstat(file.c_str(), &what), 0) << file;
    return what.st_mode;
}

// An installation with a script that adds "!" to what it gets, and a folder for results.
class FilesOfCallTool : public testing::Test {
protected:
    FilesOfCallTool()
        : m_design(m_installation.folder().write("design.bin", "design")),
          m_script(m_installation.common_script("python/change.py",
                                                "def change(data): return data + b'!'\n")),
          m_folder(m_installation.folder().make_folder("results")) {
        m_installation.common_script("python/pgm_python_common_function.pyc",
                                     "def get_zek_root_key(file, text, key):\n"
                                     "    key[:] = b'k' * 32\n"
                                     "    return True\n");
    }

    PROGRAM_RESULT change_to(const std::string& out) const {
        return call({"modify_bitstream", m_design, m_script, "change", "--out", out});
    }

    void expect_changed(const std::string& out) const {
        expect_success(change_to(out), "7 bytes written to " + out + "\n");
    }

    static void expect_not_written(const PROGRAM_RESULT& result, const std::string& out,
                                   const std::string& reason) {
        expect_failure(
            result, 1,
            "error: the result cannot be written to file '" + out + "': " + reason + "\n");
    }

    std::string content_of(const std::string& name) const {
        return m_installation.folder().read("results/" + name);
    }

    // The names in the folder for results, in order.
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
            all.push_back(entry.path().filename().string());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    const TEST_INSTALLATION m_installation;
    const std::string m_design;
    const std::string m_script;
    const std::string m_folder;
};

// The tool with the example installation, started by a shell command, in which "$0" is the tool and
// "$1" and so on the arguments.
PROGRAM_RESULT call_by_shell(const std::string& command,
                             const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"-c", command, PGM_PYTHON_PROGRAMS "/pgm_python_call"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program("sh", all,
                       {utf8_output_setting(), "PGM_COMMON_PROGRAMMER_DIR=",
                        "PGM_UNSHIPPED_PROGRAMMER_DIR=", "PGM_BIN_DIR="});
}

}  // namespace

TEST_F(FilesOfCallTool, MakesANewFileWithTheUsersPermissions) {
    const mode_t before = ::umask(027);
    expect_changed(m_folder + "/out.bin");
    ::umask(before);
    EXPECT_EQ(content_of("out.bin"), "design!");
    EXPECT_EQ(mode_of(m_folder + "/out.bin") & permissions, 0640U);
    EXPECT_EQ(names(), std::vector<std::string>{"out.bin"});
}

TEST_F(FilesOfCallTool, KeepsThePermissionsOfWhatItReplaces) {
    const std::string out = m_installation.folder().write("results/out.bin", "old and longer");
    ASSERT_EQ(::chmod(out.c_str(), 0604), 0);
    expect_changed(out);
    EXPECT_EQ(content_of("out.bin"), "design!");
    EXPECT_EQ(mode_of(out) & permissions, 0604U);
    EXPECT_EQ(names(), std::vector<std::string>{"out.bin"});
}

// An access control list as Linux keeps it: a version, and of each entry tag, permissions and whom.
std::string access_list() {
    std::string list("\2\0\0\0", 4);
    const auto add = [&list](char tag, char allowed, std::uint32_t whom) {
        list += {tag, 0, allowed, 0};
        list.append(reinterpret_cast<const char*>(&whom), sizeof whom);
    };
    constexpr std::uint32_t nobody_by_number = 0xFFFFFFFF;
    add(0x01, 6, nobody_by_number);  // owner
    add(0x02, 6, 12345);             // a user
    add(0x04, 0, nobody_by_number);  // group
    add(0x10, 6, nobody_by_number);  // at most
    add(0x20, 0, nobody_by_number);  // others
    return list;
}

TEST_F(FilesOfCallTool, KeepsTheAccessListOfWhatItReplaces) {
    const std::string out = m_installation.folder().write("results/out.bin", "old");
    constexpr char attribute[] = "system.posix_acl_access";
    const std::string list = access_list();
    if (::setxattr(out.c_str(), attribute, list.data(), list.size(), 0) != 0) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    expect_changed(out);
    EXPECT_EQ(content_of("out.bin"), "design!");
    std::array<char, 256> found = {};
    const ssize_t size = ::getxattr(out.c_str(), attribute, found.data(), found.size());
    ASSERT_GE(size, 0);
    EXPECT_EQ(std::string(found.data(), static_cast<std::size_t>(size)), list);
    EXPECT_EQ(mode_of(out) & permissions, 0660U);
}

TEST_F(FilesOfCallTool, KeepsTheOwnerOfWhatItReplaces) {
    const std::string out = m_installation.folder().write("results/out.bin", "old");
    constexpr uid_t other = 12345;
    if (::chown(out.c_str(), other, other) != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    expect_changed(out);
    struct stat what = {};
    ASSERT_EQ(::stat(out.c_str(), &what), 0);
    EXPECT_EQ(what.st_uid, other);
    EXPECT_EQ(what.st_gid, other);
}

TEST_F(FilesOfCallTool, WritesIntoAFifo) {
    const std::string fifo = m_folder + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Open for both, so that neither side waits for the other.
    const int reader = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    expect_changed(fifo);
    char text[16] = {};
    EXPECT_EQ(::read(reader, text, sizeof text), 7);
    EXPECT_STREQ(text, "design!");
    ::close(reader);
    EXPECT_TRUE(S_ISFIFO(mode_of(fifo)));
    EXPECT_EQ(names(), std::vector<std::string>{"fifo"});
}

// Not the machine's own device: a tool that replaced it would do harm.
TEST_F(FilesOfCallTool, WritesIntoADevice) {
    const std::string device = m_folder + "/null";
    constexpr dev_t number_of_null = 0x103;
    if (::mknod(device.c_str(), S_IFCHR | 0600, number_of_null) != 0) {
        GTEST_SKIP() << "only root can make devices";
    }
    const int opened = ::open(device.c_str(), O_WRONLY | O_CLOEXEC);
    if (opened < 0) {
        GTEST_SKIP() << "devices do not work in this file system";
    }
    ::close(opened);
    expect_changed(device);
    EXPECT_TRUE(S_ISCHR(mode_of(device)));
    // The same where the device is behind a link.
    ASSERT_EQ(::symlink("null", (m_folder + "/link").c_str()), 0);
    expect_changed(m_folder + "/link");
    EXPECT_TRUE(S_ISLNK(mode_of(m_folder + "/link")));
    EXPECT_TRUE(S_ISCHR(mode_of(device)));
}

TEST_F(FilesOfCallTool, ReplacesTheTargetOfALink) {
    m_installation.folder().write("results/elsewhere/target.bin", "old");
    const std::string link = m_folder + "/link.bin";
    ASSERT_EQ(::symlink("second.bin", link.c_str()), 0);
    ASSERT_EQ(::symlink("elsewhere/target.bin", (m_folder + "/second.bin").c_str()), 0);
    expect_changed(link);
    EXPECT_TRUE(S_ISLNK(mode_of(link)));
    EXPECT_TRUE(S_ISLNK(mode_of(m_folder + "/second.bin")));
    EXPECT_TRUE(S_ISREG(mode_of(m_folder + "/elsewhere/target.bin")));
    EXPECT_EQ(content_of("elsewhere/target.bin"), "design!");
}

TEST_F(FilesOfCallTool, MakesTheTargetOfALinkToNothing) {
    m_installation.folder().make_folder("results/elsewhere");
    const std::string link = m_folder + "/link.bin";
    ASSERT_EQ(::symlink("elsewhere/target.bin", link.c_str()), 0);
    expect_changed(link);
    EXPECT_TRUE(S_ISLNK(mode_of(link)));
    EXPECT_EQ(content_of("elsewhere/target.bin"), "design!");
}

TEST_F(FilesOfCallTool, WritesBehindWhatAStreamHasBeenGiven) {
    for (const char* const stream : {"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"}) {
        const PROGRAM_RESULT result = call_by_shell(
            "{ echo header; \"$0\" modify_bitstream \"$1\" \"$2\" change --out \"$3\"; echo "
            "trailer; "
            "} >\"$4\"",
            {m_design, m_script, stream, m_folder + "/group.txt"});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(content_of("group.txt"),
                  std::string("header\ndesign!7 bytes written to ") + stream + "\ntrailer\n");
    }
    const PROGRAM_RESULT with_json = call_by_shell(
        "\"$0\" --json modify_bitstream \"$1\" \"$2\" change --out /dev/fd/5 5>>\"$3\"",
        {m_design, m_script, m_folder + "/group.txt"});
    EXPECT_EQ(with_json.status, 0) << with_json.errors;
    EXPECT_TRUE(ends_with(content_of("group.txt"), "trailer\ndesign!"));
}

TEST_F(FilesOfCallTool, WritesWhereTheUserMeantWhateverAScriptChanges) {
    const std::string script = m_installation.common_script("python/wander.py",
                                                            "import os\n"
                                                            "def wander(data):\n"
                                                            "    os.chdir('/')\n"
                                                            "    os.umask(0)\n"
                                                            "    return data\n");
    for (const char* const kind : {"fresh", "kept", "worker"}) {
        const PROGRAM_RESULT result = call_by_shell(
            "cd \"$1\" && umask 027 && \"$0\" --calls \"$4\" modify_bitstream \"$2\" \"$3\" wander "
            "--out one.bin && printf '%s\\n' \"modify_bitstream one.bin '$3' wander --out "
            "two.bin\" "
            "\"modify_bitstream two.bin '$3' wander --out three.bin\" | \"$0\" --calls \"$4\" "
            "--batch -",
            {m_folder, m_design, script, kind});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(names(), (std::vector<std::string>{"one.bin", "three.bin", "two.bin"}));
        for (const std::string& name : names()) {
            EXPECT_EQ(mode_of(m_folder + "/" + name) & permissions, 0640U) << name;
            EXPECT_EQ(content_of(name), "design");
            ::unlink((m_folder + "/" + name).c_str());
        }
    }
}

TEST_F(FilesOfCallTool, TellsOfATextThatIsNotUtf8) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> calls = {
        {{"get_username", "caf\xE9"}, "USER: 'caf\xE9'"},
        {{"read_mif", "caf\xE9.mif"}, "FILE: 'caf\xE9.mif'"},
        {{"sync_p4file", "\xFF", "x"}, "FOLDER: '\xFF'"},
        {{"get_nwfmt_data", "a.py", "get_bram_chunks", "--text-1", "\xED\xA0\x80"},
         "--text-1: '\xED\xA0\x80'"},
        {{"get_nwfmt_data", "a.py", "get_bram_chunks", "--dict-1", "a=\xC0\x80"},
         "--dict-1: 'a=\xC0\x80'"},
    };
    for (const auto& [arguments, beginning] : calls) {
        expect_failure(call(arguments), 2,
                       beginning + " is not UTF-8 text\nRun with --help for more information.\n");
    }
}

TEST_F(FilesOfCallTool, TellsOfALinkThatLeadsToItself) {
    const std::string link = m_folder + "/link.bin";
    ASSERT_EQ(::symlink("link.bin", link.c_str()), 0);
    expect_not_written(change_to(link), link, "Too many levels of symbolic links");
}

TEST_F(FilesOfCallTool, LeavesFilesOfOthersAlone) {
    m_installation.folder().write("results/out.bin.partial", "somebody else's");
    expect_changed(m_folder + "/out.bin");
    EXPECT_EQ(content_of("out.bin.partial"), "somebody else's");
}

TEST_F(FilesOfCallTool, WritesFromManyProcessesToOneFile) {
    const std::string out = m_folder + "/out.bin";
    const std::string script =
        m_installation.common_script("python/grow.py", "def grow(data): return data * 2000000\n");
    std::vector<PROGRAM_RESULT> results(6);
    std::vector<std::thread> threads;
    for (PROGRAM_RESULT& result : results) {
        threads.emplace_back([&] {
            result = call({"modify_bitstream", m_design, script, "grow", "--out", out});
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const PROGRAM_RESULT& result : results) {
        expect_success(result, "12000000 bytes written to " + out + "\n");
    }
    EXPECT_EQ(content_of("out.bin").size(), 12000000U);
    EXPECT_EQ(names(), std::vector<std::string>{"out.bin"});
}

TEST_F(FilesOfCallTool, TellsTheReasonOfTheSystem) {
    const std::string missing = m_folder + "/missing/out.bin";
    expect_not_written(change_to(missing), missing, "No such file or directory");
    expect_not_written(change_to(m_folder), m_folder, "Is a directory");
    const std::string below_a_file = m_design + "/out.bin";
    expect_not_written(change_to(below_a_file), below_a_file, "Not a directory");
    const std::string too_long = m_folder + "/" + std::string(300, 'x');
    expect_not_written(change_to(too_long), too_long, "File name too long");
    EXPECT_EQ(names(), std::vector<std::string>());
}

TEST_F(FilesOfCallTool, WritesUnderTheLongestName) {
    const std::string name(255, 'x');
    expect_changed(m_folder + "/" + name);
    EXPECT_EQ(content_of(name), "design!");
}

// Nothing is left of what did not fit.
TEST_F(FilesOfCallTool, LeavesAFileAsItWasWhenTheNewOneDoesNotFit) {
    const std::string out = m_installation.folder().write("results/out.bin", "old");
    const std::string script =
        m_installation.common_script("python/grow.py", "def grow(data): return data * 100000\n");
    const PROGRAM_RESULT result = call_by_shell(
        "trap '' XFSZ; ulimit -f 100; exec \"$0\" modify_bitstream \"$1\" \"$2\" grow --out \"$3\"",
        {m_design, script, out});
    expect_not_written(result, out, "File too large");
    EXPECT_EQ(content_of("out.bin"), "old");
    EXPECT_EQ(names(), std::vector<std::string>{"out.bin"});
}

TEST_F(FilesOfCallTool, GivesAKeyToItsOwnerOnly) {
    const std::string out = m_folder + "/key.bin";
    const std::vector<std::string> arguments = {"get_zek_root_key", "x", "--out", out};
    const mode_t before = ::umask(0);
    for (const char* const state : {"new", "replaced"}) {
        expect_success(call(arguments, environment_of(m_installation)),
                       "32 bytes written to " + out + "\n");
        EXPECT_EQ(mode_of(out) & permissions, 0600U) << state;
        EXPECT_EQ(content_of("key.bin"), std::string(32, 'k')) << state;
        ASSERT_EQ(::chmod(out.c_str(), 0666), 0);
    }
    ::umask(before);
}

TEST_F(FilesOfCallTool, ReadsStandardInput) {
    const PROGRAM_RESULT result = call_by_shell(
        "printf 'a\\nb' | \"$0\" modify_bitstream - \"$1\" change --out -", {m_script});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "a\nb!");
    EXPECT_EQ(result.errors, "");
    expect_failure(call_by_shell("printf 1234567 | \"$0\" sign_compact_ccert -", {}), 2,
                   "CERTIFICATE: file '-' has 7 bytes, but the size must be a positive multiple of "
                   "8\nRun with --help for more information.\n");
}

TEST_F(FilesOfCallTool, ReadsABatchFromStandardInput) {
    const std::string script = m_installation.common_script(
        "python/read.py",
        "import sys\n"
        "def read(data): return bytearray(sys.stdin.read().encode() or b'nothing')\n");
    const PROGRAM_RESULT result = call_by_shell(
        "printf '%s\\n' \"modify_bitstream '$1' '$2' read\" 'query_opn_enum 257' | "
        "\"$0\" --batch -",
        {m_design, script});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "1: 7 bytes: 6E6F7468696E67\n2: NRV010-C100-I2\n");
    EXPECT_EQ(result.errors, "standard input: 2 calls, 2 succeeded, 0 failed\n");
}

TEST_F(FilesOfCallTool, TellsOfABatchThatCannotBeReadToItsEnd) {
    const PROGRAM_RESULT result = call_by_shell("\"$0\" --batch - < \"$1\"", {m_folder});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors,
              "error: standard input cannot be read to its end: Is a directory\n"
              "standard input: 0 calls, 0 succeeded, 0 failed\n");
}

// A child that a script has forked must not do the rest of the tool's work.
TEST_F(FilesOfCallTool, WritesOnceWhenAScriptForks) {
    const std::string script = m_installation.common_script("python/fork.py",
                                                            "import os\n"
                                                            "def fork(data):\n"
                                                            "    child = os.fork()\n"
                                                            "    if child:\n"
                                                            "        os.waitpid(child, 0)\n"
                                                            "    return data\n");
    expect_success(call({"modify_bitstream", m_design, script, "fork"}), "6 bytes: 64657369676E\n");
}

// A counter is for those who watch.
TEST_F(FilesOfCallTool, ShowsProgressOnATerminalOnly) {
    if (run_program("sh", {"-c", "command -v script"}).status != 0) {
        GTEST_SKIP() << "the program script, which makes terminals, is not installed";
    }
    const std::string calls =
        m_installation.folder().write("calls.txt", "query_opn_name NRV999\nquery_opn_enum 257\n");
    const std::string results = m_folder + "/results.txt";
    const auto watch = [&calls](const std::string& redirection) {
        return call_by_shell("script -qec \"'$0' --batch '$1' " + redirection + "\" /dev/null",
                             {calls})
            .output;
    };
    const std::string watched = watch(">'" + results + "'");
    EXPECT_TRUE(starts_with(watched, "0 calls, 0 failed\r")) << watched;
    // A message begins on a line of its own.
    EXPECT_NE(watched.find(" \r" + calls + ":1: error 20351: "), std::string::npos) << watched;
    EXPECT_NE(watched.find(" \r" + calls + ": 2 calls, 1 succeeded, 1 failed"), std::string::npos)
        << watched;
    EXPECT_EQ(content_of("results.txt"), "1: failed, status 1\n2: NRV010-C100-I2\n");
    // Results tell by themselves how far the batch is.
    EXPECT_EQ(watch("").find("0 calls"), std::string::npos);
    EXPECT_EQ(call_by_shell("exec \"$0\" --batch \"$1\"", {calls}).errors.find('\r'),
              std::string::npos);
}
