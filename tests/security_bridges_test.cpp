#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <numeric>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
#include "tests/support.h"
#include "zel/zel_py/py_reference.h"
#include "zel/zel_py/zel_py.h"

namespace {

typedef std::vector<std::string> TEXTS;

constexpr std::size_t key_size = 32;

// Knows this thread's arrays of the size of a root key, and whether they held zeros only when they
// were released.
class KEY_WATCH {
public:
    KEY_WATCH() { s_watch = this; }
    ~KEY_WATCH() { s_watch = nullptr; }
    KEY_WATCH(const KEY_WATCH&) = delete;
    KEY_WATCH& operator=(const KEY_WATCH&) = delete;

    // Writes into the arrays that are alive; returns their number.
    int fill(unsigned char byte) {
        int filled = 0;
        for (unsigned char* const array : m_alive) {
            if (array != nullptr) {
                std::fill_n(array, key_size, byte);
                ++filled;
            }
        }
        return filled;
    }

    int released_with_zeros = 0;
    int released_with_something = 0;

    static void made(void* memory, std::size_t size) {
        if (s_watch != nullptr && size == key_size) {
            *std::find(std::begin(s_watch->m_alive), std::end(s_watch->m_alive), nullptr) =
                static_cast<unsigned char*>(memory);
        }
    }
    static void released(void* memory) {
        if (s_watch == nullptr || memory == nullptr) {
            return;
        }
        for (unsigned char*& array : s_watch->m_alive) {
            if (array == memory) {
                const bool zeros = std::count(array, array + key_size, 0) == key_size;
                ++(zeros ? s_watch->released_with_zeros : s_watch->released_with_something);
                array = nullptr;
            }
        }
    }

private:
    static thread_local KEY_WATCH* s_watch;
    unsigned char* m_alive[64] = {};
};

thread_local KEY_WATCH* KEY_WATCH::s_watch = nullptr;

// Counts this thread's arrays of a size, in bytes, by whether an interpreter ran when they were
// released.
class RELEASE_WATCH {
public:
    explicit RELEASE_WATCH(std::size_t size) : m_size(size) { s_watch = this; }
    ~RELEASE_WATCH() { s_watch = nullptr; }
    RELEASE_WATCH(const RELEASE_WATCH&) = delete;
    RELEASE_WATCH& operator=(const RELEASE_WATCH&) = delete;

    int released_in_a_session = 0;
    int released_outside = 0;

    static void made(void* memory, std::size_t size) {
        if (s_watch != nullptr && size == s_watch->m_size) {
            s_watch->m_alive = memory;
        }
    }
    static void released(void* memory) {
        if (s_watch != nullptr && memory != nullptr && memory == s_watch->m_alive) {
            s_watch->m_alive = nullptr;
            ++(interpreter_is_running() ? s_watch->released_in_a_session
                                        : s_watch->released_outside);
        }
    }

private:
    static thread_local RELEASE_WATCH* s_watch;
    std::size_t m_size;
    void* m_alive = nullptr;
};

thread_local RELEASE_WATCH* RELEASE_WATCH::s_watch = nullptr;

}  // namespace

void* operator new[](std::size_t size) {
    void* const memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    KEY_WATCH::made(memory, size);
    RELEASE_WATCH::made(memory, size);
    return memory;
}

void operator delete[](void* memory) noexcept {
    KEY_WATCH::released(memory);
    RELEASE_WATCH::released(memory);
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    operator delete[](memory);
}

namespace {

// The bytes as hexadecimal text.
std::string hex(const unsigned char* bytes, std::size_t size, const char* digits) {
    std::string text;
    for (std::size_t at = 0; at < size; ++at) {
        text += {digits[bytes[at] / 16], digits[bytes[at] % 16]};
    }
    return text;
}

const char lower_digits[] = "0123456789abcdef";
const char upper_digits[] = "0123456789ABCDEF";

// "616263, size 3" or "null, size 0": a buffer, which is released, and the size that came with it.
std::string taken(unsigned char* buffer, std::size_t length, unsigned long size) {
    const std::unique_ptr<unsigned char[]> owned(buffer);
    return (buffer == nullptr ? "null" : hex(buffer, length, lower_digits)) + ", size " +
           std::to_string(size);
}

double seconds_of(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// An unsigned long of more than 32 bits, where there is such a thing.
constexpr bool wide_numbers = sizeof(unsigned long) > 4;
unsigned long wide(unsigned long high, unsigned long low) {
    return static_cast<unsigned long>(static_cast<unsigned long long>(high) << 32 | low);
}

// Notes, for each report, whether the port was taken and whether the interpreter ran.
struct MOMENTS : RECORDING_RECEIVER {
    void line(int type, const std::string& text) override {
        note();
        RECORDING_RECEIVER::line(type, text);
    }
    void post(unsigned long number, const std::string& text) override {
        note();
        RECORDING_RECEIVER::post(number, text);
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        note();
        RECORDING_RECEIVER::internal_error(error);
    }
    void note() {
        moments.push_back(std::string(port_is_free() ? "port free" : "port taken") +
                          (interpreter_is_running() ? ", interpreter runs" : ", no interpreter"));
    }
    TEXTS moments;
};

const std::string zeros(2 * key_size, '0');

class SecurityBridges : public testing::Test {
protected:
    // What comes of a call.
    struct OUTCOMES {
        std::string answer;    // what the script answers, as Python
        std::string answered;  // what the operation makes of it
        std::string failed;
        std::string not_loaded;
        unsigned long size_after_stop;  // of a size that was 7
    };
    const OUTCOMES of_certificate = {"bytearray(b'abc')", "616263, size 3", "null, size 0",
                                     "null, size 0", 0};
    const OUTCOMES of_verdict = {"None", "valid", "invalid", "invalid", 7};
    const OUTCOMES of_key = {"True", zeros + ", size 32", "null, size 0", zeros + ", size 0", 0};
    const OUTCOMES of_bitstream = {"bytearray(b'abc')", "616263, size 3", "null, size 7",
                                   "null, size 7", 7};

    // An operation, with the way it is called here.
    struct OPERATION : OUTCOMES {
        std::string script;  // a file of the common script folder
        std::string module;
        std::string function;
        int line;    // of the road's internal errors
        bool early;  // the listener's place
        std::function<std::string()> call;
    };

    std::string generate(unsigned long first = 1, unsigned long second = 2,
                         const std::string& zky = "", const std::string& pem = "") {
        size = 7;
        unsigned char* const certificate = PGM_PYTHON_MGR::generate_compact_cert(
            size, first, second, content, sizeof content, zky, pem);
        return taken(certificate, size, size);
    }
    std::string sign(const std::string& zky = "", const std::string& pem = "") {
        size = 7;
        unsigned char* const certificate =
            PGM_PYTHON_MGR::sign_compact_ccert(size, content, sizeof content, zky, pem);
        return taken(certificate, size, size);
    }
    std::string verify() {
        return PGM_PYTHON_MGR::verify_compact_cert_keychain(content, sizeof content) ? "valid"
                                                                                     : "invalid";
    }
    std::string verify_by(const std::string& script) {
        return PGM_PYTHON_MGR::verify_compact_cert_keychain(script, content, sizeof content)
                   ? "valid"
                   : "invalid";
    }
    std::string root_key(const std::string& zek_file = "key.zek",
                         const std::string& text_argument = "text") {
        size = 7;
        unsigned char* const key = PGM_PYTHON_MGR::get_zek_root_key(zek_file, size, text_argument);
        return taken(key, key_size, size);
    }
    std::string modify(const std::string& script = "norvane_encrypt",
                       const std::string& function = "encrypt", const TEXTS& arguments = {}) {
        size = 7;
        unsigned char* const bitstream = PGM_PYTHON_MGR::modify_bitstream(
            content, sizeof content, size, script, function, arguments);
        return taken(bitstream, size, size);
    }

    const OPERATION generating = {of_certificate,
                                  "compact_cert_sign.pyc",
                                  "compact_cert_sign",
                                  "external_sign_function",
                                  1130,
                                  false,
                                  [this] { return generate(); }};
    const OPERATION signing = {of_certificate,
                               "norvane_sign.py",
                               "norvane_sign",
                               "external_ccert_sign_function",
                               1265,
                               true,
                               [this] { return sign(); }};
    const OPERATION verifying = {of_verdict,
                                 "compact_cert_sign.pyc",
                                 "compact_cert_sign",
                                 "external_verify_function",
                                 1199,
                                 false,
                                 [this] { return verify(); }};
    const OPERATION verifying_by_name = {of_verdict,
                                         "chain check.py",
                                         "chain check",
                                         "external_verify_ccert_function",
                                         1324,
                                         true,
                                         [this] { return verify_by("chain check.py"); }};
    const OPERATION querying_root_key = {of_key,
                                         "pgm_python_common_function.pyc",
                                         "pgm_python_common_function",
                                         "get_zek_root_key",
                                         886,
                                         true,
                                         [this] { return root_key(); }};
    const OPERATION modifying = {
        of_bitstream, "norvane_encrypt.py",       "norvane_encrypt", "encrypt", 609,
        true,         [this] { return modify(); }};
    const std::vector<OPERATION> operations = {generating,        signing,           verifying,
                                               verifying_by_name, querying_root_key, modifying};
    // Those that return what the script's bytearray holds.
    const std::vector<OPERATION> returning_bytes = {generating, signing, modifying};

    std::string path_of(const OPERATION& operation) const {
        return installation.common() + "/python/" + operation.script;
    }
    // The script as the operation is given it.
    std::string name_of(const OPERATION& operation) const {
        return operation.function == modifying.function ? "norvane_encrypt" : path_of(operation);
    }

    // Installs the script of an operation. In it FUNCTION is the name of the operation's function,
    // answer() gives a good answer, note(text) leaves a line for noted(), and port() tells whether
    // the back channel's port is free.
    void install(const OPERATION& operation, const std::string& source) {
        installation.common_script("python/" + operation.script, helpers(operation) + source);
    }
    // The same with the operation's function alone; `body` holds indented lines.
    void install_function(const OPERATION& operation, const std::string& body) {
        install(operation, function(operation, body));
    }
    static std::string function(const OPERATION& operation, const std::string& body) {
        return "def " + operation.function + "(*arguments):\n" + body;
    }

    std::string helpers(const OPERATION& operation) const {
        return "NOTES = '" + installation.folder().path() + "/notes'\nFUNCTION = '" +
               operation.function + "'\ndef answer(): return " + operation.answer + "\n" +
               "import atexit, os, socket, sys\n"
               "def note(text):\n"
               "    with open(NOTES, 'ab') as notes:\n"
               "        notes.write(text.encode() + b'\\n')\n"
               "def port():\n"
               "    exclusive = getattr(socket, 'SO_EXCLUSIVEADDRUSE', socket.SO_REUSEADDR)\n"
               "    with socket.socket() as listener:\n"
               "        listener.setsockopt(socket.SOL_SOCKET, exclusive, 1)\n"
               "        try:\n"
               "            listener.bind(('', 57343))\n"
               "            listener.listen(1)\n"
               "        except OSError:\n"
               "            return 'taken'\n"
               "    return 'free'\n" +
               send_function;
    }

    // The lines that scripts have noted since the last time.
    TEXTS noted() const {
        const std::string notes = installation.folder().read("notes");
        installation.folder().write("notes", "");
        TEXTS lines;
        for (std::size_t at = 0; at < notes.size(); at = notes.find('\n', at) + 1) {
            lines.push_back(notes.substr(at, notes.find('\n', at) - at));
        }
        return lines;
    }

    // What the operation reports when it throws out of an internal error, after which nothing is
    // left behind and the size is what it should be.
    std::string stopped_by(const OPERATION& operation, const std::function<void()>& action) {
        size = 7;
        const std::string error = thrown_by(action);
        EXPECT_EQ(size, operation.size_after_stop);
        before.check();
        return error;
    }

    static std::string call_failure(const OPERATION& operation) {
        return "error 20351: Fail to execute function " + operation.function + " in file " +
               operation.module;
    }

    unsigned char content[8] = {0x00, 0x01, 0x7F, 0x80, 0xAB, 0xCD, 0xEF, 0xFF};
    unsigned long size = 7;
    // Scripts are replaced by others of the same length and age.
    ENVIRONMENT_VALUE no_cache{"PYTHONDONTWRITEBYTECODE", "1"};
    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
};

// ---- What all of them have in common

TEST_F(SecurityBridges, TheScriptsAnswerComesBackWithoutAReport) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install_function(operation, "    return answer()\n");
        EXPECT_EQ(written_by([&] { EXPECT_EQ(operation.call(), operation.answered); }), "");
        EXPECT_EQ(receiver.reports, TEXTS{});
        before.check();
    }
}

TEST_F(SecurityBridges, AMissingScriptIsAnInternalErrorAndTheNextCallWorks) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        const std::string script = name_of(operation);
        MOMENTS moments;
        EXPECT_EQ(stopped_by(operation, operation.call),
                  internal_error("Python script " + script + " doest not exist", operation.line));
        EXPECT_EQ(moments.moments, TEXTS{operation.early ? "port taken, no interpreter"
                                                         : "port free, no interpreter"});
        install_function(operation, "    return answer()\n");
        EXPECT_EQ(operation.call(), operation.answered);
        std::filesystem::remove(std::filesystem::u8path(path_of(operation)));
    }
}

TEST_F(SecurityBridges, ACallThatIsRefusedStartsNoInterpreter) {
    // Every interpreter that starts writes.
    const ENVIRONMENT_VALUE loud("PYTHONPROFILEIMPORTTIME", "1");
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        const MOMENTS moments;
        EXPECT_EQ(written_by([&] {
                      EXPECT_NE(thrown_by(operation.call).find("doest not exist"),
                                std::string::npos);
                  }),
                  "");
        EXPECT_EQ(moments.moments,
                  (TEXTS{std::string("port ") + (operation.early ? "taken" : "free") +
                         ", no interpreter"}));
    }
    EXPECT_EQ(written_by([&] { thrown_by([&] { generate(1, 2, "a.pem"); }); }), "");
    EXPECT_EQ(written_by([&] { thrown_by([&] { sign("", "a.zky"); }); }), "");
    EXPECT_EQ(written_by([&] { thrown_by([&] { root_key(""); }); }), "");
    EXPECT_EQ(written_by([&] { thrown_by([&] { modify(""); }); }), "");
    install_function(modifying, "    return answer()\n");
    EXPECT_NE(written_by(modifying.call).find("import time:"), std::string::npos);
}

TEST_F(SecurityBridges, AScriptThatCannotBeLoadedCompletesAnEarlyBackChannelOnly) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install(operation, "raise ValueError('at import')\n");
        MOMENTS moments;
        const std::string printed =
            written_by([&] { EXPECT_EQ(operation.call(), operation.not_loaded); });
        EXPECT_NE(printed.find("ValueError: at import"), std::string::npos) << printed;
        const std::string line = "error: Fail to load module " + operation.module;
        EXPECT_EQ(moments.reports,
                  operation.early ? (TEXTS{line, call_failure(operation)}) : TEXTS{line});
        EXPECT_EQ(moments.moments, operation.early ? (TEXTS{"port taken, interpreter runs",
                                                            "port free, no interpreter"})
                                                   : TEXTS{"port free, interpreter runs"});
        before.check();
    }
}

TEST_F(SecurityBridges, AMissingFunctionCompletesAnEarlyBackChannelOnly) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install(operation, "def another_function(*arguments): return True\n");
        MOMENTS moments;
        const std::string printed =
            written_by([&] { EXPECT_EQ(operation.call(), operation.not_loaded); });
        EXPECT_NE(printed.find("AttributeError"), std::string::npos) << printed;
        const std::string line = "error: Fail to find function " + operation.function;
        EXPECT_EQ(moments.reports,
                  operation.early ? (TEXTS{line, call_failure(operation)}) : TEXTS{line});
        EXPECT_EQ(moments.moments, operation.early ? (TEXTS{"port taken, interpreter runs",
                                                            "port free, no interpreter"})
                                                   : TEXTS{"port free, interpreter runs"});
        before.check();
    }
}

TEST_F(SecurityBridges, AFunctionThatRaisesIsReportedWithoutATraceback) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install_function(operation, "    raise ValueError('in the call')\n");
        MOMENTS moments;
        EXPECT_EQ(written_by([&] { EXPECT_EQ(operation.call(), operation.failed); }), "");
        EXPECT_EQ(moments.reports, TEXTS{call_failure(operation)});
        EXPECT_EQ(moments.moments, TEXTS{operation.early ? "port free, no interpreter"
                                                         : "port free, interpreter runs"});
        before.check();
    }
}

TEST_F(SecurityBridges, AnAttributeThatCannotBeCalledIsAFailedCall) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        receiver.reports.clear();
        install(operation, operation.function + " = 5\n");
        EXPECT_EQ(written_by([&] { EXPECT_EQ(operation.call(), operation.failed); }), "");
        EXPECT_EQ(receiver.reports, TEXTS{call_failure(operation)});
    }
}

TEST_F(SecurityBridges, AScriptThatLeavesHasFailedAndTheHostGoesOn) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        receiver.reports.clear();
        install_function(operation, "    sys.exit(0)\n");
        EXPECT_EQ(operation.call(), operation.failed);
        EXPECT_EQ(receiver.reports, TEXTS{call_failure(operation)});
        receiver.reports.clear();
        install(operation, "sys.exit(0)\n");
        written_by([&] { EXPECT_EQ(operation.call(), operation.not_loaded); });
        ASSERT_FALSE(receiver.reports.empty());
        EXPECT_EQ(receiver.reports[0], "error: Fail to load module " + operation.module);
        before.check();
    }
}

TEST_F(SecurityBridges, TheReasonsOfAFailedCallAreRelayed) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        receiver.reports.clear();
        install_function(operation,
                         "    send(b'key is revoked !@#$^&*() ask for another')\n"
                         "    raise ValueError\n");
        EXPECT_EQ(operation.call(), operation.failed);
        EXPECT_EQ(receiver.reports, (TEXTS{call_failure(operation), "error 20353: key is revoked",
                                           "error 20353: ask for another"}));
        before.check();
    }
}

TEST_F(SecurityBridges, TheTextOfASuccessfulCallIsDiscarded) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install_function(operation,
                         "    send(b'all is well')\n"
                         "    return answer()\n");
        EXPECT_EQ(operation.call(), operation.answered);
        EXPECT_EQ(receiver.reports, TEXTS{});
        before.check();
    }
}

TEST_F(SecurityBridges, AReasonSentAsTheScriptIsLoadedReachesAnEarlyBackChannelOnly) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        receiver.reports.clear();
        install(operation, "send(b'no licence')\nraise ValueError\n");
        written_by([&] { operation.call(); });
        const std::string line = "error: Fail to load module " + operation.module;
        EXPECT_EQ(receiver.reports, operation.early ? (TEXTS{line, call_failure(operation),
                                                             "error 20353: no licence"})
                                                    : TEXTS{line});
    }
}

// An answer and a function that look at the port as they are released, and a look as the
// interpreter is finalised.
TEST_F(SecurityBridges, TheListenerLivesFromItsPlaceOnTheRoadToItsCompletion) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install(operation,
                "class Answer(bytearray):\n"
                "    def __del__(self): note('answer goes: ' + port())\n"
                "class Function:\n"
                "    def __call__(self, *arguments):\n"
                "        note('call: ' + port())\n"
                "        return answer() if answer() is True else Answer(b'abc')\n"
                "    def __del__(self): note('function goes: ' + port())\n"
                "def __getattr__(name):\n"
                "    if name != FUNCTION: raise AttributeError(name)\n"
                "    return Function()\n"
                "note('import: ' + port())\n"
                "atexit.register(lambda: note('end: ' + port()))\n");
        EXPECT_EQ(operation.call(), operation.answered);
        TEXTS expected = {"import: taken", "call: taken", "answer goes: taken",
                          "function goes: taken", "end: taken"};
        if (!operation.early) {
            expected = {"import: free", "call: taken", "answer goes: taken", "function goes: free",
                        "end: free"};
        }
        if (operation.answer == "True") {
            expected.erase(expected.begin() + 2);
        }
        EXPECT_EQ(noted(), expected);
        before.check();
    }
}

TEST_F(SecurityBridges, APortThatIsTakenLosesTheReasonsOnly) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        receiver.reports.clear();
        install_function(operation, "    return answer()\n");
        EXPECT_EQ(operation.call(), operation.answered);
        EXPECT_EQ(receiver.reports, TEXTS{});
        install_function(operation, "    raise ValueError\n");
        EXPECT_EQ(operation.call(), operation.failed);
        EXPECT_EQ(receiver.reports, TEXTS{call_failure(operation)});
    }
}

TEST_F(SecurityBridges, TheScriptsCommandLineIsItsPathAloneUnlessTheOperationAddsToIt) {
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install_function(operation,
                         "    note(ascii(sys.argv))\n"
                         "    return answer()\n");
        operation.call();
        const std::string added =
            operation.function == "external_ccert_sign_function" ? ", '--zky=', '--pem='" : "";
        EXPECT_EQ(noted(), TEXTS{"['" + path_of(operation) + "'" + added + "]"});
    }
}

// Makes one of Python's allocations fail: of those that follow a script's signal, the one that
// `which` others go before.
class FAILING_ALLOCATION {
public:
    explicit FAILING_ALLOCATION(int which) : m_left(which) {
        offer_script_hooks();
        on_script_signal = [this] {
            PyMem_GetAllocator(PYMEM_DOMAIN_OBJ, &m_before);
            PyMemAllocatorEx failing = {this, allocate, allocate_zeros, reallocate, release};
            PyMem_SetAllocator(PYMEM_DOMAIN_OBJ, &failing);
            m_installed = true;
        };
    }
    ~FAILING_ALLOCATION() {
        on_script_signal = nullptr;
        if (m_installed) {
            PyMem_SetAllocator(PYMEM_DOMAIN_OBJ, &m_before);
        }
    }
    FAILING_ALLOCATION(const FAILING_ALLOCATION&) = delete;
    FAILING_ALLOCATION& operator=(const FAILING_ALLOCATION&) = delete;

private:
    bool fails() { return m_left-- == 0; }

    static FAILING_ALLOCATION& self(void* context) {
        return *static_cast<FAILING_ALLOCATION*>(context);
    }
    static void* allocate(void* context, std::size_t size) {
        PyMemAllocatorEx& before = self(context).m_before;
        return self(context).fails() ? nullptr : before.malloc(before.ctx, size);
    }
    static void* allocate_zeros(void* context, std::size_t count, std::size_t size) {
        PyMemAllocatorEx& before = self(context).m_before;
        return self(context).fails() ? nullptr : before.calloc(before.ctx, count, size);
    }
    static void* reallocate(void* context, void* memory, std::size_t size) {
        PyMemAllocatorEx& before = self(context).m_before;
        return self(context).fails() ? nullptr : before.realloc(before.ctx, memory, size);
    }
    static void release(void* context, void* memory) {
        PyMemAllocatorEx& before = self(context).m_before;
        before.free(before.ctx, memory);
    }

    PyMemAllocatorEx m_before = {};
    int m_left;
    bool m_installed = false;
};

// The checks that the tuple took an item ("PyTuple_SetItem(...) == 0") cannot be made to fail: that
// takes an index outside the tuple or somebody else who holds the tuple, and between its making and
// the call no script runs.
TEST_F(SecurityBridges, AnItemThatCannotBeMadeIsAnInternalErrorOfItsOwn) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    const std::string zky = installation.folder().write("key.zky", "");
    const std::string pem = installation.folder().write("key.pem", "");
    struct ROW {
        OPERATION operation;
        std::function<void()> call;
        TEXTS errors;  // one for each allocation
    };
    const ROW rows[] = {
        {generating,
         [&] { generate(1000, 2000, zky, pem); },
         {internal_error("pArgs != NULL", 1138), internal_error("pArg0 != NULL", 1140),
          internal_error("pArg1 != NULL", 1142), internal_error("pArg2 != NULL", 1144),
          internal_error("pArg3 != NULL", 1146), internal_error("pArg4 != NULL", 1148)}},
        {signing,
         signing.call,
         {internal_error("pArgs != nullptr", 1269), internal_error("pArg0 != nullptr", 1271)}},
        {verifying,
         verifying.call,
         {internal_error("pArgs != NULL", 1207), internal_error("pArg != NULL", 1209)}},
        {verifying_by_name,
         verifying_by_name.call,
         {internal_error("pArgs != nullptr", 1328), internal_error("pArg != nullptr", 1330)}},
        {querying_root_key,
         querying_root_key.call,
         {internal_error("pArgs != nullptr", 890), internal_error("pArg0 != nullptr", 892),
          internal_error("pArg1 != nullptr", 894), internal_error("pArg2 != nullptr", 896)}},
        {modifying,
         modifying.call,
         {internal_error("pArgs != nullptr", 613), internal_error("pArg != nullptr", 615)}},
    };
    for (const ROW& row : rows) {
        SCOPED_TRACE(row.operation.function);
        // Python keeps short tuples for later; the script takes them all before it signals.
        install(row.operation,
                "import test_hooks\n"
                "tuples = []\n"
                "def function(*arguments): return answer()\n"
                "def __getattr__(name):\n"
                "    if name != FUNCTION: raise AttributeError(name)\n"
                "    for i in range(3000):\n"
                "        tuples.append((i,))\n"
                "        tuples.append((i, i, i))\n"
                "        tuples.append((i, i, i, i, i))\n"
                "    test_hooks.signal()\n"
                "    return function\n");
        for (std::size_t which = 0; which < row.errors.size(); ++which) {
            MOMENTS moments;
            std::string error;
            {
                const FAILING_ALLOCATION failing(static_cast<int>(which));
                error = stopped_by(row.operation, row.call);
            }
            EXPECT_EQ(error, row.errors[which]);
            EXPECT_EQ(moments.moments, TEXTS{"port taken, interpreter runs"});
        }
        offer_script_hooks();
        EXPECT_EQ(row.operation.call(), row.operation.answered);
    }
}

// ---- Content of certificates

TEST_F(SecurityBridges, ContentMustBeAPositiveNumberOfEightByteWords) {
    struct CONTENT {
        unsigned char* bytes;
        unsigned long size;
    };
    std::vector<CONTENT> bad = {{nullptr, 8},
                                {nullptr, 0},
                                {nullptr, 4},
                                {content, 0},
                                {content, 1},
                                {content, 4},
                                {content, 7},
                                {content, 9},
                                {content, 12},
                                {content, 20},
                                {content, 0x7FFFFFFFUL},
                                {content, 0xFFFFFFFFUL},
                                {nullptr, 0x80000000UL},
                                {nullptr, 0xFFFFFFF8UL}};
    if (wide_numbers) {
        bad.insert(bad.end(),
                   {{content, wide(1, 0)}, {content, wide(8, 0)}, {content, wide(1, 4)}});
    }
    const std::string rule = "content_size > 0 && (content_size % 8) == 0";
    for (const CONTENT& row : bad) {
        SCOPED_TRACE(row.size);
        MOMENTS moments;
        size = 7;
        EXPECT_EQ(thrown_by([&] {
                      PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, row.bytes, row.size, "",
                                                            "");
                  }),
                  internal_error("content != NULL && " + rule, 1117));
        EXPECT_EQ(thrown_by([&] {
                      PGM_PYTHON_MGR::sign_compact_ccert(size, row.bytes, row.size, "", "");
                  }),
                  internal_error("unsign_content != nullptr && unsign_content_size > 0 && "
                                 "(unsign_content_size % 8) == 0",
                                 1242));
        EXPECT_EQ(size, 7UL);
        EXPECT_EQ(
            thrown_by([&] { PGM_PYTHON_MGR::verify_compact_cert_keychain(row.bytes, row.size); }),
            internal_error("content != nullptr && " + rule, 1190));
        EXPECT_EQ(thrown_by([&] {
                      PGM_PYTHON_MGR::verify_compact_cert_keychain("chain check.py", row.bytes,
                                                                   row.size);
                  }),
                  internal_error("content != nullptr && " + rule, 1310));
        EXPECT_EQ(moments.moments, TEXTS(4, "port free, no interpreter"));
    }
    before.check();
    for (const OPERATION& operation : {generating, signing, verifying, verifying_by_name}) {
        install_function(operation, "    return answer()\n");
        EXPECT_EQ(operation.call(), operation.answered);
    }
}

TEST_F(SecurityBridges, ContentReachesTheScriptAsUpperCaseHexadecimalText) {
    std::vector<unsigned char> bytes(256);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    const std::string noted_text = "str " + hex(bytes.data(), bytes.size(), upper_digits);
    const auto note_item = [](const OPERATION& operation, const std::string& item) {
        return function(operation, "    text = arguments[" + item +
                                       "]\n"
                                       "    note(type(text).__name__ + ' ' + text)\n"
                                       "    return bytearray()\n");
    };
    install(generating, note_item(generating, "2") + note_item(verifying, "0"));
    install(signing, note_item(signing, "0"));
    install(verifying_by_name, note_item(verifying_by_name, "0"));
    PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, bytes.data(), 256, "", "");
    EXPECT_EQ(noted(), TEXTS{noted_text});
    PGM_PYTHON_MGR::sign_compact_ccert(size, bytes.data(), 256, "", "");
    EXPECT_EQ(noted(), TEXTS{noted_text});
    PGM_PYTHON_MGR::verify_compact_cert_keychain(bytes.data(), 256);
    EXPECT_EQ(noted(), TEXTS{noted_text});
    PGM_PYTHON_MGR::verify_compact_cert_keychain("chain check.py", bytes.data(), 256);
    EXPECT_EQ(noted(), TEXTS{noted_text});
    EXPECT_EQ(receiver.reports, TEXTS{});
}

TEST_F(SecurityBridges, LongContentReachesTheScriptWhole) {
    install_function(generating, "    return bytearray.fromhex(arguments[2])\n");
    for (const unsigned long count : {0x3FF8UL, 0x4000UL, 0x4008UL, 0x8000UL, 0x18008UL}) {
        std::vector<unsigned char> bytes(count);
        for (std::size_t at = 0; at < count; ++at) {
            bytes[at] = static_cast<unsigned char>(at * 7 + at / 251);
        }
        const std::unique_ptr<unsigned char[]> certificate(
            PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, bytes.data(), count, "", ""));
        ASSERT_EQ(size, count);
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), certificate.get())) << count;
    }
}

TEST_F(SecurityBridges, OnlyTheLow32BitsOfAContentsSizeCount) {
    if (!wide_numbers) {
        GTEST_SKIP() << "an unsigned long has 32 bits here";
    }
    const std::string body = "    note(arguments[-1])\n    return bytearray(b'abc')\n";
    install(generating, function(generating,
                                 "    note(arguments[2])\n"
                                 "    return bytearray(b'abc')\n") +
                            function(verifying, body));
    install_function(signing, body);
    install_function(verifying_by_name, body);
    unsigned char* const made =
        PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, content, wide(1, 8), "", "");
    EXPECT_EQ(taken(made, size, size), "616263, size 3");
    unsigned char* const signed_one =
        PGM_PYTHON_MGR::sign_compact_ccert(size, content, wide(0xFFFFFFFFUL, 8), "", "");
    EXPECT_EQ(taken(signed_one, size, size), "616263, size 3");
    EXPECT_TRUE(PGM_PYTHON_MGR::verify_compact_cert_keychain(content, wide(2, 8)));
    EXPECT_TRUE(
        PGM_PYTHON_MGR::verify_compact_cert_keychain("chain check.py", content, wide(3, 8)));
    EXPECT_EQ(noted(), TEXTS(4, "00017F80ABCDEFFF"));
}

// ---- Key files

TEST_F(SecurityBridges, AKeyFileMustExistWithTheExtensionOfItsKind) {
    const std::string zky_check =
        "zky.empty() || (PGM_COMMON::match_extension(zky.c_str(), { \".zky\" }) && "
        "FIO_FILE_SYSTEM::exists(zky.c_str()))";
    const std::string pem_check =
        "pem.empty() || (PGM_COMMON::match_extension(pem.c_str(), { \".pem\" }) && "
        "FIO_FILE_SYSTEM::exists(pem.c_str()))";
    const TEMPORARY_FOLDER& folder = installation.folder();
    const std::string zky = folder.write("key.zky", "");
    const std::string pem = folder.write("key.pem", "");
    const std::string none = folder.write("zky", "");
    const std::string other = folder.write("key.zky.txt", "");
    install_function(generating, "    return bytearray(b'abc')\n");
    install_function(signing, "    return bytearray(b'abc')\n");
    struct ROW {
        std::string zky;
        std::string pem;
        bool zky_is_bad;
    };
    MOMENTS moments;
    for (const ROW& row :
         {ROW{pem, "", true}, ROW{folder.path() + "/missing.zky", "", true}, ROW{none, "", true},
          ROW{other, "", true}, ROW{".zky", "", true}, ROW{pem, zky, true},
          ROW{folder.path() + "/missing.zky", folder.path() + "/missing.pem", true},
          ROW{"", zky, false}, ROW{"", folder.path() + "/missing.pem", false},
          ROW{zky, none, false}, ROW{zky, other, false}, ROW{zky, "pem", false}}) {
        SCOPED_TRACE(row.zky + " and " + row.pem);
        const std::string& check = row.zky_is_bad ? zky_check : pem_check;
        EXPECT_EQ(thrown_by([&] { generate(1, 2, row.zky, row.pem); }),
                  internal_error(check, row.zky_is_bad ? 1118 : 1119));
        EXPECT_EQ(size, 7UL);
        EXPECT_EQ(thrown_by([&] { sign(row.zky, row.pem); }),
                  internal_error(check, row.zky_is_bad ? 1243 : 1244));
        EXPECT_EQ(size, 7UL);
        before.check();
    }
    EXPECT_EQ(moments.moments, TEXTS(24, "port free, no interpreter"));
    EXPECT_EQ(generate(1, 2, zky, pem), "616263, size 3");
    EXPECT_EQ(generate(1, 2, "", pem), "616263, size 3");
    EXPECT_EQ(sign(zky, ""), "616263, size 3");
    EXPECT_EQ(sign(zky, pem), "616263, size 3");
}

TEST_F(SecurityBridges, AKeyFilesExtensionMayHaveCapitals) {
    install_function(generating, "    return answer()\n");
    install_function(signing, "    return answer()\n");
    const std::string zky = installation.folder().write("keys/a.ZKY", "");
    const std::string pem = installation.folder().write("keys/a.Pem", "");
    EXPECT_EQ(generate(1, 2, zky, pem), "616263, size 3");
    EXPECT_EQ(sign(zky, pem), "616263, size 3");
}

TEST_F(SecurityBridges, AFolderIsNoKeyFile) {
    install_function(generating, "    return answer()\n");
    install_function(signing, "    return answer()\n");
    const std::string zky = installation.folder().make_folder("x.zky");
    const std::string pem = installation.folder().make_folder("x.pem");
    const auto has_line = [](const std::string& error, const char* line) {
        EXPECT_NE(error.find(line), std::string::npos) << error;
    };
    has_line(thrown_by([&] { generate(1, 2, zky, ""); }), "line 1118]");
    has_line(thrown_by([&] { generate(1, 2, "", pem); }), "line 1119]");
    has_line(thrown_by([&] { sign(zky, ""); }), "line 1243]");
    has_line(thrown_by([&] { sign("", pem); }), "line 1244]");
    before.check();
}

TEST_F(SecurityBridges, AKeyFilesNameEndsAtItsFirstZeroByte) {
    install_function(generating, "    note(repr(arguments[3:]))\n    return answer()\n");
    install_function(signing, "    note(repr(sys.argv[1:]))\n    return answer()\n");
    const std::string zky = installation.folder().write("a.zky", "");
    const std::string pem = installation.folder().write("a.pem", "");
    const std::string end("\0.txt", 5);
    EXPECT_EQ(generate(1, 2, zky + end, pem + end), "616263, size 3");
    EXPECT_EQ(sign(zky + end, pem + end), "616263, size 3");
    EXPECT_EQ(noted(), (TEXTS{"('" + zky + "', '" + pem + "')",
                              "['--zky=" + zky + "', '--pem=" + pem + "']"}));
    // What follows a zero byte makes no key file of another one.
    const std::string text = installation.folder().write("a.txt", "");
    for (const std::string& name : {text, std::string(), zky + "x"}) {
        EXPECT_NE(thrown_by([&] {
                      generate(1, 2, name + std::string("\0.zky", 5), "");
                  }).find("line 1118]"),
                  std::string::npos);
        EXPECT_NE(thrown_by([&] { sign("", name + std::string("\0.pem", 5)); }).find("line 1244]"),
                  std::string::npos);
    }
}

TEST_F(SecurityBridges, EveryItemIsMadeBeforeAnyIsPlaced) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
#if defined(_WIN32)
    GTEST_SKIP() << "file names are text on Windows";
#endif
    install_function(generating, "    return answer()\n");
    const std::string pem = installation.folder().path() + "/\xFF.pem";
    std::FILE* const file = std::fopen(pem.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    const UNFINISHED_TUPLE looker(5);
    EXPECT_NE(thrown_by([&] { generate(1, 2, "", pem); }).find("pArg4 != NULL"), std::string::npos);
    EXPECT_EQ(looker.items, 0);
}

TEST_F(SecurityBridges, ContentIsCheckedBeforeKeyFilesAndThoseBeforeTheScript) {
    EXPECT_EQ(
        thrown_by([&] {
            PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, content, 4, "a.pem", "a.zky");
        }),
        internal_error("content != NULL && content_size > 0 && (content_size % 8) == 0", 1117));
    EXPECT_NE(thrown_by([&] { generate(1, 2, "a.pem", "a.zky"); }).find("line 1118]"),
              std::string::npos);
    EXPECT_NE(thrown_by([&] { generate(1, 2, "", "a.zky"); }).find("line 1119]"),
              std::string::npos);
    EXPECT_EQ(
        thrown_by([&] { PGM_PYTHON_MGR::sign_compact_ccert(size, nullptr, 8, "a.pem", "a.zky"); }),
        internal_error("unsign_content != nullptr && unsign_content_size > 0 && "
                       "(unsign_content_size % 8) == 0",
                       1242));
    EXPECT_NE(thrown_by([&] { sign("a.pem", "a.zky"); }).find("line 1243]"), std::string::npos);
    EXPECT_NE(thrown_by([&] { sign("", "a.zky"); }).find("line 1244]"), std::string::npos);
    EXPECT_EQ(size, 7UL);
}

TEST_F(SecurityBridges, KeyFilesReachTheGeneratingScriptAsArguments) {
    install_function(generating,
                     "    note(type(arguments[3]).__name__ + ' ' + arguments[3])\n"
                     "    note(type(arguments[4]).__name__ + ' ' + arguments[4])\n"
                     "    return bytearray()\n");
    const std::string zky = installation.folder().write("key files/a  key.zky", "");
    const std::string pem =
        installation.folder().write("key files/Schl\xC3\xBCssel \xE2\x82\xAC.pem", "");
    generate(1, 2, zky, pem);
    EXPECT_EQ(noted(), (TEXTS{"str " + zky, "str " + pem}));
    generate(1, 2, "", pem);
    EXPECT_EQ(noted(), (TEXTS{"str ", "str " + pem}));
    generate(1, 2, zky, "");
    EXPECT_EQ(noted(), (TEXTS{"str " + zky, "str "}));
    EXPECT_EQ(receiver.reports, TEXTS{});
}

TEST_F(SecurityBridges, KeyFilesReachTheSigningScriptAsOptions) {
    install_function(signing,
                     "    note(ascii(arguments))\n"
                     "    note(ascii(sys.argv[1:]))\n"
                     "    return bytearray()\n");
    const std::string zky = installation.folder().write("key files/a  key.zky", "");
    const std::string pem = installation.folder().write("key files/the=key 'x'.pem", "");
    const std::string argument = "('00017F80ABCDEFFF',)";
    sign(zky, pem);
    EXPECT_EQ(noted(), (TEXTS{argument, "['--zky=" + zky + "', \"--pem=" + pem + "\"]"}));
    sign("", pem);
    EXPECT_EQ(noted(), (TEXTS{argument, "['--zky=', \"--pem=" + pem + "\"]"}));
    sign(zky, "");
    EXPECT_EQ(noted(), (TEXTS{argument, "['--zky=" + zky + "', '--pem=']"}));
    sign("", "");
    EXPECT_EQ(noted(), (TEXTS{argument, "['--zky=', '--pem=']"}));
    EXPECT_EQ(receiver.reports, TEXTS{});
}

TEST_F(SecurityBridges, AKeyFileThatIsNoTextIsAnInternalErrorOfItsItem) {
#if defined(_WIN32)
    GTEST_SKIP() << "file names are text on Windows";
#endif
    install_function(generating, "    return bytearray(b'abc')\n");
    const auto file = [&](const std::string& name) {
        const std::string path = installation.folder().path() + "/" + name;
        std::FILE* const stream = std::fopen(path.c_str(), "w");
        EXPECT_NE(stream, nullptr);
        std::fclose(stream);
        return path;
    };
    const std::string zky = file("\xFF.zky");
    const std::string pem = file("\xFF.pem");
    EXPECT_EQ(stopped_by(generating, [&] { generate(1, 2, zky, ""); }),
              internal_error("pArg3 != NULL", 1146));
    EXPECT_EQ(stopped_by(generating, [&] { generate(1, 2, "", pem); }),
              internal_error("pArg4 != NULL", 1148));
    EXPECT_EQ(stopped_by(generating, [&] { generate(1, 2, zky, pem); }),
              internal_error("pArg3 != NULL", 1146));
    EXPECT_EQ(generate(), "616263, size 3");
    // A command line's text ends where it cannot be converted.
    install_function(signing,
                     "    note(str(sys.argv[1].startswith('--zky=" + installation.folder().path() +
                         "/')))\n"
                         "    return bytearray(b'abc')\n");
    receiver.reports.clear();
    EXPECT_EQ(sign(zky, ""), "616263, size 3");
    EXPECT_EQ(noted(), TEXTS{"True"});
    EXPECT_EQ(receiver.reports, TEXTS{});
}

// ---- Numbers

TEST_F(SecurityBridges, NumbersReachTheGeneratingScriptAsSigned32BitOnes) {
    install_function(generating, "    note(ascii(arguments))\n    return bytearray()\n");
    struct ROW {
        unsigned long number;
        const char* seen;
    };
    std::vector<ROW> rows = {{0, "0"},
                             {1, "1"},
                             {0x7FFFFFFFUL, "2147483647"},
                             {0x80000000UL, "-2147483648"},
                             {0xFFFFFFFFUL, "-1"}};
    if (wide_numbers) {
        rows.insert(rows.end(), {{wide(1, 0), "0"},
                                 {wide(0xFFFFFFFFUL, 5), "5"},
                                 {wide(1, 0x80000000UL), "-2147483648"},
                                 {wide(0xFFFFFFFFUL, 0xFFFFFFFFUL), "-1"}});
    }
    for (const ROW& row : rows) {
        generate(row.number, 17);
        generate(17, row.number);
        EXPECT_EQ(noted(),
                  (TEXTS{"(" + std::string(row.seen) + ", 17, '00017F80ABCDEFFF', '', '')",
                         "(17, " + std::string(row.seen) + ", '00017F80ABCDEFFF', '', '')"}));
    }
    EXPECT_EQ(receiver.reports, TEXTS{});
}

// ---- Answers

TEST_F(SecurityBridges, AnEmptyAnswerIsNullWithoutAReport) {
    for (const OPERATION& operation : returning_bytes) {
        SCOPED_TRACE(operation.function);
        install_function(operation, "    return bytearray()\n");
        EXPECT_EQ(operation.call(), "null, size 0");
        EXPECT_EQ(receiver.reports, TEXTS{});
        before.check();
    }
}

TEST_F(SecurityBridges, AnAnswersBytesAreReturnedAsTheyAre) {
    std::vector<unsigned char> bytes(256);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    const std::string all = hex(bytes.data(), bytes.size(), lower_digits) + ", size 256";
    for (const OPERATION& operation : returning_bytes) {
        SCOPED_TRACE(operation.function);
        install_function(operation, "    return bytearray(range(256))\n");
        EXPECT_EQ(operation.call(), all);
        // Bytes that begin inside the object's memory.
        install_function(operation,
                         "    answer = bytearray(b'longer answer')\n"
                         "    del answer[:7]\n"
                         "    return answer\n");
        EXPECT_EQ(operation.call(), "616e73776572, size 6");
        install_function(operation,
                         "    class Bytes(bytearray):\n"
                         "        def __len__(self): return 100\n"
                         "    return Bytes(b'\\0')\n");
        EXPECT_EQ(operation.call(), "00, size 1");
    }
}

TEST_F(SecurityBridges, AnAnswersLengthIsCutTo32Bits) {
    if (!python_imports_again("ctypes")) {
        GTEST_SKIP() << why_python_does_not_import_again;
    }
    for (const OPERATION& operation : returning_bytes) {
        SCOPED_TRACE(operation.function);
        for (const char* length : {"0x100000003", "0x100000000"}) {
            // Only the length is that large: so much memory is not for a test.
            install_function(operation,
                             "    import ctypes\n"
                             "    answer = bytearray(b'abcdef')\n"
                             "    at = id(answer) + 2 * ctypes.sizeof(ctypes.c_void_p)\n"
                             "    ctypes.c_ssize_t.from_address(at).value = " +
                                 std::string(length) +
                                 "\n"
                                 "    return answer\n");
            EXPECT_EQ(operation.call(), length[10] == '3' ? "616263, size 3" : "null, size 0");
        }
        EXPECT_EQ(receiver.reports, TEXTS{});
    }
}

const char* const wrong_answers[] = {"None",
                                     "b'bytes'",
                                     "'text'",
                                     "''",
                                     "42",
                                     "1.5",
                                     "[]",
                                     "[bytearray(b'abc')]",
                                     "(bytearray(b'abc'),)",
                                     "{}",
                                     "memoryview(b'abc')",
                                     "object()",
                                     "ValueError('returned')",
                                     "bytearray"};

TEST_F(SecurityBridges, AnAnswerOfAnotherTypeCountsAsAnEmptyOne) {
    for (const OPERATION& operation : returning_bytes) {
        for (const char* answer : wrong_answers) {
            SCOPED_TRACE(operation.function + " answers " + answer);
            install_function(operation, "    return " + std::string(answer) + "\n");
            EXPECT_EQ(written_by([&] { EXPECT_EQ(operation.call(), "null, size 0"); }), "");
            EXPECT_EQ(receiver.reports, TEXTS{});
            before.check();
        }
    }
}

TEST_F(SecurityBridges, WhateverAVerifyingFunctionReturnsTheChainIsValid) {
    TEXTS answers(std::begin(wrong_answers), std::end(wrong_answers));
    answers.insert(answers.end(), {"False", "0", "NotImplemented", "bytearray()"});
    for (const OPERATION& operation : {verifying, verifying_by_name}) {
        for (const std::string& answer : answers) {
            SCOPED_TRACE(operation.function + " answers " + answer);
            install_function(operation, "    return " + answer + "\n");
            EXPECT_EQ(written_by([&] { EXPECT_EQ(operation.call(), "valid"); }), "");
            EXPECT_EQ(receiver.reports, TEXTS{});
        }
    }
}

// An interpreter of the host's own, started without the library.
class HOST_INTERPRETER {
public:
    HOST_INTERPRETER() : m_home("PYTHONHOME", prefix().c_str()) { Py_InitializeEx(0); }
    ~HOST_INTERPRETER() { Py_FinalizeEx(); }
    HOST_INTERPRETER(const HOST_INTERPRETER&) = delete;
    HOST_INTERPRETER& operator=(const HOST_INTERPRETER&) = delete;

private:
    static std::string prefix() {
        py_initialize();
        const std::string prefix = PyUnicode_AsUTF8(PySys_GetObject("base_prefix"));
        py_finalize();
        return prefix;
    }

    ENVIRONMENT_VALUE m_home;
};

TEST_F(SecurityBridges, AHostsInterpreterIsLeftRunningWithoutAPendingError) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    for (const OPERATION& operation : operations) {
        SCOPED_TRACE(operation.function);
        install(operation, "import json\n" + function(operation, "    return json.answer()\n"));
        const HOST_INTERPRETER host;
        const auto answered = [&](const std::string& answer) {
            EXPECT_EQ(PyRun_SimpleString(("import json\n"
                                          "def answer(): return " +
                                          answer +
                                          "\n"
                                          "json.answer = answer\n")
                                             .c_str()),
                      0);
            std::string result = "stopped";
            thrown_by([&] { result = operation.call(); });
            EXPECT_TRUE(interpreter_is_running());
            EXPECT_EQ(PyErr_Occurred(), nullptr);
            return result;
        };
        EXPECT_EQ(answered(operation.answer), operation.answered);
        answered("None");
        answered("'text'");
        EXPECT_EQ(answered("1 // 0"), operation.failed);
        EXPECT_EQ(answered(operation.answer), operation.answered);
    }
}

// ---- verify_compact_cert_keychain by a script's name

TEST_F(SecurityBridges, AVerifyingScriptsNameIsCheckedBeforeTheContent) {
    MOMENTS moments;
    EXPECT_EQ(thrown_by([&] {
                  PGM_PYTHON_MGR::verify_compact_cert_keychain("", content, sizeof content);
              }),
              internal_error("!script.empty()", 1309));
    EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR::verify_compact_cert_keychain("", nullptr, 0); }),
              internal_error("!script.empty()", 1309));
    EXPECT_EQ(
        thrown_by([&] { PGM_PYTHON_MGR::verify_compact_cert_keychain("missing.py", content, 0); }),
        internal_error("content != nullptr && content_size > 0 && (content_size % 8) == 0", 1310));
    EXPECT_EQ(moments.moments, TEXTS(3, "port free, no interpreter"));
    before.check();
}

TEST_F(SecurityBridges, TheTwoWaysOfVerifyingCallDifferentFunctionsOfOneScript) {
    install(verifying,
            function(verifying, "    note('by the fixed script')\n") +
                function(verifying_by_name, "    note('by name')\n    raise ValueError\n"));
    EXPECT_EQ(verify(), "valid");
    EXPECT_EQ(verify_by("compact_cert_sign.pyc"), "invalid");
    EXPECT_EQ(noted(), (TEXTS{"by the fixed script", "by name"}));
}

TEST_F(SecurityBridges, AVerifyingScriptIsFoundByItsFileNameOnly) {
    const std::string folder = installation.common() + "/python/";
    installation.common_script("python/norvane_sign.py", "");
    installation.unshipped_script("python/re_sign.py", "");
    const std::string existing = installation.folder().write("elsewhere.py", "");
    for (const std::string& name : {std::string("norvane_sign"), std::string("norvane_sign.pyc"),
                                    std::string("re_sign.py"), std::string("re_sign"), existing}) {
        EXPECT_EQ(stopped_by(verifying_by_name, [&] { verify_by(name); }),
                  internal_error("Python script " + folder + name + " doest not exist", 1324));
    }
    installation.common_script("python/source/deeper.py",
                               function(verifying_by_name, "    return 1\n"));
    EXPECT_EQ(verify_by("source/deeper.py"), "valid");
}

TEST_F(SecurityBridges, AVerifyingScriptMustBeAPythonFileWithAName) {
    const std::string notes = installation.common_script("python/notes.txt", "");
    EXPECT_EQ(
        stopped_by(verifying_by_name, [&] { verify_by("notes.txt"); }),
        internal_error("Python script " + notes + " must have extension of .py or .pyc", 1781));
    installation.common_script("python/.py", "");
    EXPECT_EQ(stopped_by(verifying_by_name, [&] { verify_by(".py"); }),
              internal_error("filename.size()", 1324));
}

// ---- get_zek_root_key

// What the key's bytearray holds is noted by a finaliser of the script's and by one of an object of
// the script's.
const char looking_back[] =
    "class Looker:\n"
    "    def __init__(self, key):\n"
    "        self.key = key\n"
    "        self.notes = os.open(NOTES, os.O_WRONLY | os.O_APPEND | os.O_CREAT |\n"
    "            getattr(os, 'O_BINARY', 0))\n"
    "    def __del__(self, write=os.write):\n"
    "        write(self.notes, b'object: ' + bytes(self.key).hex().encode() + b'\\n')\n"
    "def look_back(key):\n"
    "    global looker\n"
    "    looker = Looker(key)\n"
    "    atexit.register(lambda: note('end: ' + bytes(key).hex()))\n";

class RootKey : public SecurityBridges {
protected:
    // Installs a script that writes the key 1, 2, ... 32 and ends as `body` says.
    void install_key(const std::string& body) {
        install(querying_root_key, looking_back + function(querying_root_key,
                                                           "    key = arguments[2]\n"
                                                           "    key[:] = bytes(range(1, 33))\n"
                                                           "    look_back(key)\n" +
                                                               body));
    }

    const std::string key = "0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20";
    const TEXTS wiped = {"end: " + zeros, "object: " + zeros};
};

TEST_F(RootKey, TheKeyIsWhatTheScriptWroteIntoTheBytearray) {
    install_key("    return True\n");
    EXPECT_EQ(root_key(), key + ", size 32");
    EXPECT_EQ(receiver.reports, TEXTS{});
    before.check();
}

TEST_F(RootKey, AScriptThatWritesNothingGivesZeros) {
    install_function(querying_root_key, "    return True\n");
    EXPECT_EQ(root_key(), zeros + ", size 32");
}

TEST_F(RootKey, TheScriptGetsTwoTextsAndABytearrayOfZeros) {
    install_function(querying_root_key, "    note(ascii(arguments))\n    return True\n");
    std::string bytes;
    for (std::size_t count = 0; count < key_size; ++count) {
        bytes += "\\x00";
    }
    const std::string third = ", bytearray(b'" + bytes + "'))";
    root_key("no such file", "a text");
    root_key("x", "");
    root_key("Schl\xC3\xBCssel.zek", "\xE2\x82\xAC");
    root_key(std::string("ab\0cd", 5), std::string("\0ef", 3));
    EXPECT_EQ(noted(), (TEXTS{"('no such file', 'a text'" + third, "('x', ''" + third,
                              "('Schl\\xfcssel.zek', '\\u20ac'" + third, "('ab', ''" + third}));
    EXPECT_EQ(receiver.reports, TEXTS{});
}

TEST_F(RootKey, AnEmptyFileNameIsAnInternalErrorBeforeAnythingElse) {
    MOMENTS moments;
    EXPECT_EQ(thrown_by([&] { root_key("", "\xFF"); }),
              internal_error("No ZEK file is specified", 869));
    EXPECT_EQ(size, 7UL);
    EXPECT_EQ(moments.moments, TEXTS{"port free, no interpreter"});
    before.check();
    install_key("    return True\n");
    EXPECT_EQ(root_key(), key + ", size 32");
}

TEST_F(RootKey, ATextThatIsNotUtf8IsAnInternalErrorOfItsItem) {
    install_key("    return True\n");
    const auto error_of = [&](const char* file, const char* text) {
        return stopped_by(querying_root_key, [&] { root_key(file, text); });
    };
    EXPECT_EQ(error_of("\xFF", "text"), internal_error("pArg0 != nullptr", 892));
    EXPECT_EQ(error_of("file", "\xFF"), internal_error("pArg1 != nullptr", 894));
    EXPECT_EQ(error_of("\xFF", "\xFF"), internal_error("pArg0 != nullptr", 892));
    EXPECT_EQ(root_key(), key + ", size 32");
}

TEST_F(RootKey, EveryItemIsMadeBeforeAnyIsPlaced) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_function(querying_root_key, "    return answer()\n");
    const UNFINISHED_TUPLE looker(3);
    EXPECT_NE(thrown_by([&] { root_key("key.zek", "\xFF"); }).find("pArg1 != nullptr"),
              std::string::npos);
    EXPECT_EQ(looker.items, 0);
}

TEST_F(RootKey, AnAnswerThatIsNoBoolIsAnInternalErrorAndTheNextCallWorks) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    TEXTS answers(std::begin(wrong_answers), std::end(wrong_answers));
    answers.insert(answers.end(), {"0", "1", "key", "bool"});
    for (const std::string& answer : answers) {
        SCOPED_TRACE(answer);
        install_key("    return " + answer + "\n");
        EXPECT_EQ(written_by([&] {
                      EXPECT_EQ(stopped_by(querying_root_key, [&] { root_key(); }),
                                internal_error("PyBool_Check(pResult)", 904));
                  }),
                  "");
        EXPECT_EQ(noted(), wiped);
    }
    install_key("    return True\n");
    EXPECT_EQ(root_key(), key + ", size 32");
}

TEST_F(RootKey, FalseIsAnInternalErrorAndTheNextCallWorks) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    MOMENTS moments;
    install_key("    return False\n");
    EXPECT_EQ(stopped_by(querying_root_key, [&] { root_key(); }),
              internal_error("pResult == Py_True", 905));
    EXPECT_EQ(moments.moments, TEXTS{"port taken, interpreter runs"});
    EXPECT_EQ(noted(), wiped);
    install_key("    return True\n");
    EXPECT_EQ(root_key(), key + ", size 32");
}

TEST_F(RootKey, NoCopyOfTheKeyStaysInTheInterpreter) {
    for (const char* end : {"return True", "raise ValueError", "sys.exit()"}) {
        SCOPED_TRACE(end);
        install_key("    note('written: ' + bytes(key).hex())\n    " + std::string(end) + "\n");
        EXPECT_EQ(root_key(),
                  end == std::string("return True") ? key + ", size 32" : "null, size 0");
        EXPECT_EQ(noted(), (TEXTS{"written: " + key, wiped[0], wiped[1]}));
    }
}

TEST_F(RootKey, NoCopyOfTheKeyStaysInAHostsInterpreter) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    // A module of the standard library stays loaded.
    install_key("    import json\n    json.kept = key\n    return True\n");
    const HOST_INTERPRETER host;
    EXPECT_EQ(root_key(), key + ", size 32");
    PyObject* const module = PyImport_ImportModule("json");
    ASSERT_NE(module, nullptr);
    PyObject* const kept = PyObject_GetAttrString(module, "kept");
    ASSERT_NE(kept, nullptr);
    const unsigned char* const bytes = reinterpret_cast<unsigned char*>(PyByteArray_AsString(kept));
    EXPECT_EQ(hex(bytes, static_cast<std::size_t>(PyByteArray_Size(kept)), lower_digits), zeros);
}

TEST_F(RootKey, OfABytearrayOfAnotherLengthTheFirst32BytesCount) {
    struct ROW {
        const char* change;
        std::string key;
    };
    const std::string none = std::string(2 * key_size, '0');
    for (const ROW& row :
         {ROW{"key.extend(b'x' * 1000)", key}, ROW{"key[:] = bytes(range(1, 101))", key},
          ROW{"del key[31:]", key.substr(0, 62) + "00"},
          ROW{"del key[:30]", "1f20" + none.substr(4)},
          ROW{"key[:] = b'abc'", "616263" + none.substr(6)}, ROW{"key.clear()", none},
          ROW{"del key[:]", none}}) {
        SCOPED_TRACE(row.change);
        install_key("    " + std::string(row.change) +
                    "\n"
                    "    atexit.register(lambda: note('length: %d' % len(key)))\n"
                    "    note('length: %d' % len(key))\n"
                    "    return True\n");
        EXPECT_EQ(root_key(), row.key + ", size 32");
        const TEXTS notes = noted();
        ASSERT_EQ(notes.size(), 4U);
        EXPECT_EQ(notes[0], notes[1]);
        EXPECT_EQ(notes[2].find_first_not_of('0', 5), std::string::npos) << notes[2];
        EXPECT_EQ(notes[3].find_first_not_of('0', 8), std::string::npos) << notes[3];
        EXPECT_EQ(receiver.reports, TEXTS{});
    }
}

// Writes into the key's native buffer when something is reported.
struct KEY_FILLER : RECORDING_RECEIVER {
    explicit KEY_FILLER(KEY_WATCH& watch) : m_watch(watch) {}
    void post(unsigned long number, const std::string& text) override {
        filled.push_back(m_watch.fill(0xA5));
        RECORDING_RECEIVER::post(number, text);
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        filled.push_back(m_watch.fill(0xA5));
        RECORDING_RECEIVER::internal_error(error);
    }
    KEY_WATCH& m_watch;
    std::vector<int> filled;
};

TEST_F(RootKey, ANativeBufferIsOverwrittenBeforeItIsReleased) {
    for (const char* end : {"raise ValueError", "return None", "return False"}) {
        SCOPED_TRACE(end);
        install_key("    " + std::string(end) + "\n");
        KEY_WATCH watch;
        KEY_FILLER filler(watch);
        thrown_by([&] { EXPECT_EQ(root_key(), "null, size 0"); });
        EXPECT_EQ(filler.filled, std::vector<int>{1});
        EXPECT_EQ(watch.released_with_zeros, 1);
        EXPECT_EQ(watch.released_with_something, 0);
    }
    // The caller's buffer is the caller's to overwrite.
    install_key("    return True\n");
    KEY_WATCH watch;
    EXPECT_EQ(root_key(), key + ", size 32");
    EXPECT_EQ(watch.released_with_something, 1);
}

// ---- modify_bitstream

class ModifyBitstream : public SecurityBridges {
protected:
    // Notes the path and the command line, and answers "abc".
    const std::string noting = "    note(ascii(sys.argv))\n    return bytearray(b'abc')\n";

    std::string script(const std::string& name) {
        return installation.common() + "/python/" + name;
    }
};

TEST_F(ModifyBitstream, TheFunctionGetsABytearrayWithACopyOfTheData) {
    install_function(modifying,
                     "    note(ascii(arguments))\n"
                     "    arguments[0][:] = b'changed in place'\n"
                     "    return arguments[0]\n");
    const unsigned char data[] = {0x00, 0x41, 0xFF};
    unsigned char* const bitstream =
        PGM_PYTHON_MGR::modify_bitstream(data, sizeof data, size, "norvane_encrypt", "encrypt", {});
    EXPECT_EQ(taken(bitstream, size, size), "6368616e67656420696e20706c616365, size 16");
    EXPECT_EQ(noted(), TEXTS{"(bytearray(b'\\x00A\\xff'),)"});
    EXPECT_EQ(hex(data, sizeof data, lower_digits), "0041ff");
    EXPECT_EQ(receiver.reports, TEXTS{});
    before.check();
}

TEST_F(ModifyBitstream, NoDataGivesAnEmptyBytearray) {
    install_function(modifying, "    note(ascii(arguments))\n    return bytearray(b'abc')\n");
    for (const unsigned char* data :
         {static_cast<const unsigned char*>(content), static_cast<const unsigned char*>(nullptr)}) {
        unsigned char* const bitstream =
            PGM_PYTHON_MGR::modify_bitstream(data, 0, size, "norvane_encrypt", "encrypt", {});
        EXPECT_EQ(taken(bitstream, size, size), "616263, size 3");
        EXPECT_EQ(noted(), TEXTS{"(bytearray(b''),)"});
    }
}

TEST_F(ModifyBitstream, ASizeWithoutDataGivesZeros) {
    install_function(modifying, "    note(ascii(arguments))\n    return bytearray()\n");
    PGM_PYTHON_MGR::modify_bitstream(nullptr, 3, size, "norvane_encrypt", "encrypt", {});
    EXPECT_EQ(noted(), TEXTS{"(bytearray(b'\\x00\\x00\\x00'),)"});
}

TEST_F(ModifyBitstream, OnlyTheLow32BitsOfTheSizeCount) {
    if (!wide_numbers) {
        GTEST_SKIP() << "an unsigned long has 32 bits here";
    }
    install_function(modifying, "    return arguments[0]\n");
    unsigned char* const two = PGM_PYTHON_MGR::modify_bitstream(content, wide(1, 2), size,
                                                                "norvane_encrypt", "encrypt", {});
    EXPECT_EQ(taken(two, size, size), "0001, size 2");
    unsigned char* const none = PGM_PYTHON_MGR::modify_bitstream(content, wide(1, 0), size,
                                                                 "norvane_encrypt", "encrypt", {});
    EXPECT_EQ(taken(none, size, size), "null, size 0");
}

TEST_F(ModifyBitstream, ADefaultScriptIsFoundByNameStemAndFileName) {
    install_function(modifying, noting);
    const std::string common = script("norvane_encrypt.py");
    for (const char* name : {"norvane_encrypt", "norvane_encrypt.py"}) {
        EXPECT_EQ(modify(name), "616263, size 3");
        EXPECT_EQ(noted(), TEXTS{"['" + common + "']"});
    }
    const std::string unshipped = installation.unshipped_script(
        "python/pgm_internal_tool.pyc", helpers(modifying) + function(modifying, noting));
    for (const char* name : {"itool", "pgm_internal_tool", "pgm_internal_tool.pyc"}) {
        EXPECT_EQ(modify(name), "616263, size 3");
        EXPECT_EQ(noted(), TEXTS{"['" + unshipped + "']"});
    }
}

TEST_F(ModifyBitstream, AnExistingFileWinsOverADefaultScript) {
    install_function(modifying, "    return bytearray(b'the default script')\n");
    const std::string source = helpers(modifying) + function(modifying, noting);
    const TEMPORARY_FOLDER& folder = installation.folder();
    const std::string own = folder.write("own scripts/my tool.py", source);
    folder.write("own scripts/norvane_encrypt.py", source);
    EXPECT_EQ(modify(own), "616263, size 3");
    EXPECT_EQ(noted(), TEXTS{"['" + own + "']"});
    const CURRENT_FOLDER current(folder.path() + "/own scripts");
    EXPECT_EQ(modify("norvane_encrypt.py"), "616263, size 3");
    EXPECT_EQ(noted(), TEXTS{"['norvane_encrypt.py']"});
    EXPECT_EQ(modify("./my tool.py"), "616263, size 3");
    EXPECT_EQ(noted(), TEXTS{"['./my tool.py']"});
    EXPECT_EQ(modify("norvane_encrypt"), modify(script("norvane_encrypt.py")));
    folder.write("own scripts/norvane_encrypt", source);
    EXPECT_EQ(
        stopped_by(modifying, [&] { modify("norvane_encrypt"); }),
        internal_error("Python script norvane_encrypt must have extension of .py or .pyc", 1781));
}

TEST_F(ModifyBitstream, AScriptThatDoesNotExistIsReportedAsItWasNamed) {
    install_function(modifying, noting);
    for (const std::string& name : {std::string("itool"), std::string("rom_extension_sign.pyc"),
                                    std::string("nothing"), std::string("Norvane_encrypt"),
                                    std::string("norvane_encrypt.pyc"), script("missing.py")}) {
        MOMENTS moments;
        EXPECT_EQ(stopped_by(modifying, [&] { modify(name); }),
                  internal_error("Python script " + name + " doest not exist", 609));
        EXPECT_EQ(moments.moments, TEXTS{"port taken, no interpreter"});
    }
    EXPECT_EQ(modify(), "616263, size 3");
}

TEST_F(ModifyBitstream, TheChecksHaveAnOrder) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    installation.folder().write("notes.txt", "");
    const std::string no_script = installation.folder().path() + "/notes.txt";
    MOMENTS moments;
    EXPECT_EQ(stopped_by(modifying, [&] { modify("", "", {""}); }),
              internal_error("Python file must be specified", 600));
    EXPECT_EQ(stopped_by(modifying, [&] { modify("missing.txt", "", {""}); }),
              internal_error("Python script missing.txt doest not exist", 609));
    EXPECT_EQ(stopped_by(modifying, [&] { modify(no_script, "", {""}); }),
              internal_error("Python function must be specified", 609));
    EXPECT_EQ(stopped_by(modifying, [&] { modify(no_script, "f", {""}); }),
              internal_error("Argument at index 0 cannot be empty string", 1680));
    EXPECT_EQ(
        stopped_by(modifying, [&] { modify(no_script, "f"); }),
        internal_error("Python script " + no_script + " must have extension of .py or .pyc", 1781));
    EXPECT_EQ(
        stopped_by(modifying, [&] { modify(installation.common_script("python/.py", ""), "f"); }),
        internal_error("filename.size()", 609));
    EXPECT_EQ(moments.moments,
              (TEXTS{"port free, no interpreter", "port taken, no interpreter",
                     "port taken, no interpreter", "port taken, interpreter runs",
                     "port taken, interpreter runs", "port taken, interpreter runs"}));
    install_function(modifying, noting);
    EXPECT_EQ(modify(), "616263, size 3");
}

TEST_F(ModifyBitstream, TheScriptArgumentsFollowTheScriptsPath) {
    install_function(modifying, noting);
    EXPECT_EQ(modify("norvane_encrypt", "encrypt", {"--mode=fast and safe", "plain", " ", "-"}),
              "616263, size 3");
    EXPECT_EQ(noted(), TEXTS{"['" + script("norvane_encrypt.py") +
                             "', '--mode=fast and safe', 'plain', ' ', '-']"});
}

TEST_F(ModifyBitstream, TheArgumentVectorIsReleasedAfterTheInterpreter) {
    SKIP_UNLESS_IN_PROCESS("the interpreter is not in this process");
    install_function(modifying, "    return answer()\n");
    const std::string argument(2001, 'x');
    const RELEASE_WATCH watch((argument.size() + 1) * sizeof(wchar_t));
    modify("norvane_encrypt", "encrypt", {argument});
    EXPECT_EQ(watch.released_outside, 1);
    EXPECT_EQ(watch.released_in_a_session, 0);
}

TEST_F(ModifyBitstream, TheArgumentVectorIsSetBeforeTheSearchPath) {
    install_function(modifying, "    return answer()\n");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "/x/\"y");
    EXPECT_EQ(stopped_by(modifying, [&] { modify("norvane_encrypt", "encrypt", {""}); }),
              internal_error("Argument at index 0 cannot be empty string", 1680));
    EXPECT_EQ(stopped_by(modifying, [&] { modify(); }),
              internal_error("py_eval(setting.c_str())", 1760));
}

TEST_F(ModifyBitstream, AnEmptyScriptArgumentIsAnInternalErrorAndTheNextCallWorks) {
    install_function(modifying, noting);
    EXPECT_EQ(stopped_by(modifying,
                         [&] {
                             modify("norvane_encrypt", "encrypt", {"a", "b", "", "c"});
                         }),
              internal_error("Argument at index 2 cannot be empty string", 1680));
    EXPECT_EQ(noted(), TEXTS{});
    EXPECT_EQ(modify(), "616263, size 3");
}

TEST_F(ModifyBitstream, AReportOfAnEmptyScriptArgumentThatReturnsLetsTheCallGoOn) {
    install_function(modifying, noting);
    receiver.returns_from_internal_errors = true;
    EXPECT_EQ(modify("norvane_encrypt", "encrypt", {"a", "", "", "b"}), "616263, size 3");
    EXPECT_EQ(receiver.reports,
              TEXTS{internal_error("Argument at index 1 cannot be empty string", 1680)});
    EXPECT_EQ(noted(), TEXTS{"['" + script("norvane_encrypt.py") + "', 'a', '', '', 'b']"});
    before.check();
}

TEST_F(ModifyBitstream, ANameThatIsNoTextNamesNoFunction) {
    install_function(modifying, noting);
    const std::string printed =
        written_by([&] { EXPECT_EQ(modify("norvane_encrypt", "\xFF"), "null, size 7"); });
    EXPECT_NE(printed.find("UnicodeDecodeError"), std::string::npos) << printed;
    EXPECT_EQ(receiver.reports,
              (TEXTS{"error: Fail to find function \xFF",
                     "error 20351: Fail to execute function \xFF in file norvane_encrypt"}));
    before.check();
}

TEST_F(ModifyBitstream, AModuleNameThatIsNoTextIsReported) {
#if defined(_WIN32)
    GTEST_SKIP() << "file names are text on Windows";
#endif
    const std::string path = script("\xFF.py");
    std::FILE* const file = std::fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    const std::string printed = written_by([&] { EXPECT_EQ(modify(path), "null, size 7"); });
    EXPECT_NE(printed.find("UnicodeDecodeError"), std::string::npos) << printed;
    EXPECT_EQ(receiver.reports,
              (TEXTS{"error: Fail to convert module name \xFF to PyObject",
                     "error 20351: Fail to execute function encrypt in file \xFF"}));
    before.check();
}

// ---- Big data

constexpr long long mebibyte = 1024 * 1024;
// What an interpreter and its modules may take.
constexpr long long small_things = 24 * mebibyte;
constexpr double generous_seconds = 120;

std::vector<unsigned char> pattern(std::size_t size) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<unsigned char>(at * 2654435761U >> 16);
    }
    return bytes;
}

typedef SecurityBridges BigData;

TEST_F(BigData, SixteenMebibytesOfContentCostTheirTextTheAnswerAndTheResult) {
    SKIP_UNLESS_IN_PROCESS("so is most of their memory");
    install_function(generating, "    return bytearray.fromhex(arguments[2])\n");
    generate();
    std::vector<unsigned char> bytes = pattern(16 * mebibyte);
    std::unique_ptr<unsigned char[]> certificate;
    const PEAK_MEMORY memory;
    EXPECT_LT(seconds_of([&] {
                  certificate.reset(PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, bytes.data(),
                                                                          16 * mebibyte, "", ""));
              }),
              generous_seconds);
    const long long growth = memory.growth();
    ASSERT_EQ(size, bytes.size());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), certificate.get()));
    if (growth < 0) {
        GTEST_SKIP() << "nothing tells the peak of the memory here";
    }
    EXPECT_GT(growth, (32 + 16 + 16 - 1) * mebibyte);
    EXPECT_LT(growth, (32 + 16 + 16) * mebibyte + small_things / 2);
}

TEST_F(BigData, SixtyFourMebibytesOfBitstreamCostTheBytearrayAndTheResult) {
    SKIP_UNLESS_IN_PROCESS("so is most of their memory");
    install_function(modifying,
                     "    bitstream = arguments[0]\n"
                     "    bitstream[0] ^= 0xFF\n"
                     "    bitstream[12345678] ^= 0xFF\n"
                     "    bitstream[-1] ^= 0xFF\n"
                     "    return bitstream\n");
    modify();
    std::vector<unsigned char> bytes = pattern(64 * mebibyte);
    std::unique_ptr<unsigned char[]> bitstream;
    const PEAK_MEMORY memory;
    EXPECT_LT(seconds_of([&] {
                  bitstream.reset(PGM_PYTHON_MGR::modify_bitstream(
                      bytes.data(), 64 * mebibyte, size, "norvane_encrypt", "encrypt", {}));
              }),
              generous_seconds);
    const long long growth = memory.growth();
    ASSERT_EQ(size, bytes.size());
    for (const std::size_t at : {std::size_t{0}, std::size_t{12345678}, bytes.size() - 1}) {
        bytes[at] = static_cast<unsigned char>(~bytes[at]);
    }
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), bitstream.get()));
    if (growth < 0) {
        GTEST_SKIP() << "nothing tells the peak of the memory here";
    }
    EXPECT_GT(growth, (64 + 64 - 1) * mebibyte);
    EXPECT_LT(growth, (64 + 64) * mebibyte + small_things);
}

// ---- Without a receiver

// A regular expression that matches the line of an internal error.
std::string line_of(const std::string& text, int line) {
    std::string expression;
    for (const char letter : internal_error(text, line)) {
        if (std::string("\\^$.|?*+()[]{}").find(letter) != std::string::npos) {
            expression += '\\';
        }
        expression += letter;
    }
    return expression + "\n";
}

typedef SecurityBridges SecurityBridgesDeathTest;

TEST_F(SecurityBridgesDeathTest, WithoutAReceiverTheFirstCheckOfEachOperationAborts) {
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, nullptr, 8, "", ""),
                 line_of("content != NULL && content_size > 0 && (content_size % 8) == 0", 1117));
    EXPECT_DEATH(PGM_PYTHON_MGR::sign_compact_ccert(size, nullptr, 8, "", ""),
                 line_of("unsign_content != nullptr && unsign_content_size > 0 && "
                         "(unsign_content_size % 8) == 0",
                         1242));
    EXPECT_DEATH(
        PGM_PYTHON_MGR::verify_compact_cert_keychain(nullptr, 8),
        line_of("content != nullptr && content_size > 0 && (content_size % 8) == 0", 1190));
    EXPECT_DEATH(PGM_PYTHON_MGR::verify_compact_cert_keychain("", content, 8),
                 line_of("!script.empty()", 1309));
    EXPECT_DEATH(PGM_PYTHON_MGR::get_zek_root_key("", size, ""),
                 line_of("No ZEK file is specified", 869));
    EXPECT_DEATH(PGM_PYTHON_MGR::modify_bitstream(content, 8, size, "", "f", {}),
                 line_of("Python file must be specified", 600));
}

TEST_F(SecurityBridgesDeathTest, WithoutAReceiverAMissingScriptAborts) {
    MSG_RECEIVER::set(nullptr);
    const std::size_t start = std::string("internal error: ").size();
    for (const OPERATION& operation : operations) {
        // Where the program is started anew for this, its folder has another name.
        const std::string name = name_of(operation);
        const std::string file = name.substr(name.rfind('/') + 1);
        EXPECT_DEATH(operation.call(),
                     line_of(file + " doest not exist", operation.line).substr(start));
    }
}

TEST_F(SecurityBridgesDeathTest, WithoutAReceiverAFalseAnswerForAKeyAborts) {
    install_function(querying_root_key, "    return False\n");
    MSG_RECEIVER::set(nullptr);
    EXPECT_DEATH(root_key(), line_of("pResult == Py_True", 905));
}

}  // namespace
