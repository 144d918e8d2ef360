#include "tests/soak/soak_calls.h"

#include <map>
#include <memory>
#include <numeric>
#include <utility>

#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
#include "zel/zel_py/zel_py.h"

namespace {

constexpr char outcome_variable[] = "PGM_PYTHON_SOAK_OUTCOME";

// What the scripts know the outcomes by, and of a hundred calls how many should end so. Whatever an
// operation cannot have goes to the others.
struct OUTCOME_ROW {
    OUTCOME outcome;
    const char* name;
    double weight;
};
constexpr OUTCOME_ROW outcome_rows[] = {
    {OUTCOME::succeeds, "succeeds", 53},
    {OUTCOME::refuses, "refuses", 20},
    {OUTCOME::fails_silently, "fails silently", 3},
    {OUTCOME::has_no_function, "has no function", 4},
    {OUTCOME::cannot_be_imported, "cannot be imported", 4},
    {OUTCOME::has_wrong_type, "has wrong type", 10},
    {OUTCOME::hangs, "hangs", 4},
    {OUTCOME::hangs_and_fails, "hangs and fails", 2},
};

const OUTCOME_ROW& row_of(OUTCOME outcome) {
    return outcome_rows[static_cast<std::size_t>(outcome)];
}

// The source of every script. The environment tells it the outcome.
constexpr char script_source[] = R"(
import os
import re
import struct
import sys

import _socket

outcome = os.environ['PGM_PYTHON_SOAK_OUTCOME']
if outcome == 'cannot be imported':
    import there_is_no_such_module

def tell(text):
    channel = _socket.socket(_socket.AF_INET, _socket.SOCK_STREAM)
    channel.connect(('127.0.0.1', 57343))
    channel.sendall(text)
    channel.close()

def end(answer):
    if outcome.startswith('hangs'):
        import test_hooks
        test_hooks.signal()
    if outcome == 'refuses':
        tell(b'the first reason !@#$^&*() the second reason')
    if outcome in ('refuses', 'fails silently', 'hangs and fails'):
        raise ValueError('raised by the script')
    return None if outcome == 'has wrong type' else answer

if outcome != 'has no function':
    def get_username(user):
        return end('user ' + user)
    def query_opn_enum(code):
        return end('name %d' % code)
    def query_opn_name(name):
        return end(len(name) - 6)
    def read_mif(file, continuous):
        return end([bytearray(file, 'ascii'), int(continuous), 7])
    def get_zek_root_key(file, text, key):
        key[:] = bytearray(range(32))
        end(None)
        return outcome != 'has wrong type' or None
    def sync_p4file(folder, source):
        return end(folder + ' ' + source)
    def external_sign_function(first, second, content, zky, pem):
        return end(bytearray('%d %d %s' % (first, second, content), 'ascii'))
    def external_ccert_sign_function(content):
        return end(bytearray(' '.join([content] + sys.argv[1:]), 'ascii'))
    def external_verify_function(content):
        return end(True)
    def external_verify_ccert_function(content):
        return end(True)
    def change_bitstream(data):
        return end(data[::-1] + bytearray(sys.argv[1], 'ascii'))
    def external_make_rim_function(raw, family, number, output):
        return end(None)
    def mysql():
        return end(' '.join(sys.argv[1:]))
    def get_bram_chunks(text_1, map_1, map_2, text_2, map_3, map_4):
        return end([bytearray(text_1 + map_1['key'], 'ascii'), bytearray(text_2 + map_4['key'], 'ascii')])
    def get_xcvr_hash_and_size(text_1, map_1, map_2, text_2, map_3, map_4):
        return end([bytearray(text_1, 'ascii'), len(map_2)])

if __name__ == '__main__' and sys.argv[1:] == ['as main program']:
    if end(True) is not True:
        sys.exit(3)
)";

typedef std::unique_ptr<unsigned char[]> BUFFER;

std::string text_of(const BUFFER& buffer, unsigned long size) {
    return buffer ? std::string(reinterpret_cast<const char*>(buffer.get()), size) : "null";
}

std::string text_of(bool answer) {
    return answer ? "true" : "false";
}

unsigned char content[] = {0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF, 0x20, 0x0A};
constexpr char hex_content[] = "00017F80FEFF200A";

std::string report_of(unsigned long number, const std::string& text) {
    return "error " + std::to_string(number) + ": " + text;
}

bool is_hanging(OUTCOME outcome) {
    return outcome == OUTCOME::hangs || outcome == OUTCOME::hangs_and_fails;
}

}  // namespace

// An operation: what is right for it in each outcome follows from these.
struct SOAK_CALLS::OPERATION {
    enum CHANNEL { none, early, late };

    const char* name;
    std::string module;
    std::string function;
    CHANNEL channel;
    std::function<std::string()> make;
    std::string answer;
    // Of a call that raised, and of one that did not come that far.
    std::string failed_answer;
    std::string unmade_answer;
    std::string wrong_type_answer;
    // An internal error when the type is wrong; none unless set.
    std::string wrong_type_error = "";
    bool posts_failure = false;
    std::string failure_line = "";
    std::string lookup_line = "Fail to find function ";

    OPERATION posting_failure() && {
        posts_failure = true;
        return std::move(*this);
    }
    OPERATION printing_failure(const std::string& line) && {
        failure_line = line;
        return std::move(*this);
    }
    OPERATION printing_lookup_failure(const std::string& line) && {
        lookup_line = line;
        return std::move(*this);
    }
};

void SOAK_CALLS::add(const OPERATION& operation) {
    const std::string failure = report_of(
        20351, "Fail to execute function " + operation.function + " in file " + operation.module);
    m_operations.push_back(operation.name);
    for (const OUTCOME_ROW& row : outcome_rows) {
        const bool uses_channel = row.outcome == OUTCOME::refuses || is_hanging(row.outcome);
        if (uses_channel && operation.channel == OPERATION::none) {
            continue;
        }
        SOAK_CALL call = {operation.name,          row.outcome, operation.make,
                          operation.failed_answer, {},          ""};
        switch (row.outcome) {
            case OUTCOME::succeeds:
            case OUTCOME::hangs:
                call.answer = operation.answer;
                break;
            case OUTCOME::has_wrong_type:
                call.answer = operation.wrong_type_answer;
                if (!operation.wrong_type_error.empty()) {
                    call.reports = {operation.wrong_type_error};
                }
                break;
            case OUTCOME::cannot_be_imported:
            case OUTCOME::has_no_function:
                call.answer = operation.unmade_answer;
                if (row.outcome == OUTCOME::has_no_function) {
                    call.reports = {
                        "error: " + operation.lookup_line +
                        (operation.lookup_line.back() == ' ' ? operation.function : "")};
                    call.written = "AttributeError: module '" + operation.module +
                                   "' has no attribute '" + operation.function + "'";
                } else {
                    call.reports = {"error: Fail to load module " + operation.module};
                    call.written =
                        "ModuleNotFoundError: No module named 'there_is_no_such_module'\n";
                }
                if (operation.channel == OPERATION::early) {
                    call.reports.push_back(failure);
                }
                break;
            case OUTCOME::refuses:
            case OUTCOME::fails_silently:
            case OUTCOME::hangs_and_fails:
                if (!operation.failure_line.empty()) {
                    call.reports.push_back("error: " + operation.failure_line);
                    call.written = "ValueError: raised by the script\n";
                }
                if (operation.channel != OPERATION::none || operation.posts_failure) {
                    call.reports.push_back(failure);
                }
                if (row.outcome == OUTCOME::refuses) {
                    call.reports.push_back(report_of(20353, "the first reason"));
                    call.reports.push_back(report_of(20353, "the second reason"));
                }
                break;
        }
        m_calls.push_back(std::move(call));
    }
}

SOAK_CALLS::SOAK_CALLS() {
    for (const char* const script :
         {"python/pgm_python_common_function.pyc", "python/compact_cert_sign.pyc",
          "python/norvane_sign.py", "python/verify.py", "python/rim_generator.pyc"}) {
        m_installation.common_script(script, script_source);
    }
    m_installation.unshipped_script("python/pgm_internal_tool.pyc", script_source);
    m_installation.unshipped_script("mysql/mysql.pyc", script_source);
    m_installation.folder().write("common/programmernwfmt/network_format.py", script_source);

    typedef OPERATION OP;
    const std::string common = "pgm_python_common_function";
    const std::string thrown = "an internal error";
    add(OPERATION{"get_username", common, "get_username", OP::none,
                  [] { return PGM_PYTHON_MGR::get_username("name"); }, "user name", "", "", ""}
            .posting_failure());
    add(OPERATION{"query_opn_enum", common, "query_opn_enum", OP::none,
                  [] { return PGM_PYTHON_MGR::query_opn_enum(0x80000001UL); }, "name -2147483647",
                  "", "", ""}
            .posting_failure());
    add(OPERATION{"query_opn_name", common, "query_opn_name", OP::none,
                  [] { return std::to_string(PGM_PYTHON_MGR::query_opn_name("OPN")); },
                  "4294967293", "4294967295", "4294967295", "4294967295"}
            .posting_failure());
    for (const bool continuous : {false, true}) {
        add(OPERATION{continuous ? "read_mif, continuous" : "read_mif", common, "read_mif",
                      OP::none,
                      [continuous] {
                          unsigned long width = 11;
                          unsigned long depth = 12;
                          unsigned long size = 13;
                          const BUFFER image(
                              PGM_PYTHON_MGR::read_mif("some.mif", continuous, width, depth, size));
                          return text_of(image, size) + " " + std::to_string(width) + " " +
                                 std::to_string(depth) + " " + std::to_string(size);
                      },
                      continuous ? "some.mif 1 7 8" : "some.mif 0 7 8", "null 11 12 13",
                      "null 11 12 13", thrown, internal_error("return_size == 3", 676)}
                .posting_failure());
    }
    add({"generate_compact_cert", "compact_cert_sign", "external_sign_function", OP::late,
         [] {
             unsigned long size = 13;
             const BUFFER made(PGM_PYTHON_MGR::generate_compact_cert(size, 1, 0xFFFFFFFFUL, content,
                                                                     sizeof content, "", ""));
             return text_of(made, size) + " " + std::to_string(size);
         },
         std::string("1 -1 ") + hex_content + " 21", "null 0", "null 0", "null 0"});
    add({"sign_compact_ccert", "norvane_sign", "external_ccert_sign_function", OP::early,
         [] {
             unsigned long size = 13;
             const BUFFER made(
                 PGM_PYTHON_MGR::sign_compact_ccert(size, content, sizeof content, "", ""));
             return text_of(made, size) + " " + std::to_string(size);
         },
         std::string(hex_content) + " --zky= --pem= 30", "null 0", "null 0", "null 0"});
    add({"verify_compact_cert_keychain", "compact_cert_sign", "external_verify_function", OP::late,
         [] {
             return text_of(PGM_PYTHON_MGR::verify_compact_cert_keychain(content, sizeof content));
         },
         "true", "false", "false", "true"});
    add({"verify_compact_cert_keychain with a script", "verify", "external_verify_ccert_function",
         OP::early,
         [] {
             return text_of(PGM_PYTHON_MGR::verify_compact_cert_keychain("verify.py", content,
                                                                         sizeof content));
         },
         "true", "false", "false", "true"});
    std::string key(32, '\0');
    std::iota(key.begin(), key.end(), '\0');
    add({"get_zek_root_key", common, "get_zek_root_key", OP::early,
         [] {
             unsigned long size = 13;
             const BUFFER root_key(PGM_PYTHON_MGR::get_zek_root_key("key.zek", size, "text"));
             return text_of(root_key, 32) + " " + std::to_string(size);
         },
         key + " 32", "null 0", std::string(32, '\0') + " 0", thrown,
         internal_error("PyBool_Check(pResult)", 904)});
    add({"modify_bitstream", "pgm_internal_tool", "change_bitstream", OP::early,
         [] {
             unsigned long size = 13;
             const std::string bitstream = "bits";
             const BUFFER changed(PGM_PYTHON_MGR::modify_bitstream(
                 reinterpret_cast<const unsigned char*>(bitstream.data()),
                 static_cast<unsigned long>(bitstream.size()), size, "itool", "change_bitstream",
                 {"--argument"}));
             return text_of(changed, size) + " " + std::to_string(size);
         },
         "stib--argument 14", "null 13", "null 13", "null 0"});
    const auto extract = [](const char* function) {
        return [function] {
            const std::map<std::string, std::string> map = {{"key", "value"}};
            unsigned long size = 13;
            PGM_PYTHON_MGR manager;
            const std::vector<unsigned char> data = manager.get_nwfmt_data(
                "network_format.py", function, "one ", map, map, " two ", map, map, size);
            return std::string(data.begin(), data.end()) + " " + std::to_string(size);
        };
    };
    add(OPERATION{"get_nwfmt_data, chunks", "network_format", "get_bram_chunks", OP::late,
                  extract("get_bram_chunks"), "one value two value 13", " 13", " 13", " 13"}
            .printing_failure("Fail to call nwfmt function"));
    add(OPERATION{"get_nwfmt_data, hash", "network_format", "get_xcvr_hash_and_size", OP::late,
                  extract("get_xcvr_hash_and_size"), "one  1", " 13", " 13", thrown,
                  internal_error("list_size == 2", 1443)}
            .printing_failure("Fail to call nwfmt function"));
    add({"generate_rim", "rim_generator", "external_make_rim_function", OP::early,
         [] { return text_of(PGM_PYTHON_MGR::generate_rim("raw.rbf", "family", 3, "out.rim")); },
         "true", "false", "false", "true"});
    add(OPERATION{"execute_mysql", "mysql", "mysql", OP::none,
                  [] {
                      bool found = false;
                      const std::string answer =
                          PGM_PYTHON_MGR::execute_mysql({"select", "everything"}, found);
                      return answer + " " + text_of(found);
                  },
                  "select everything true", " true", " true", " true"}
            .printing_failure("Fail to call mysql function")
            .printing_lookup_failure("Fail to find mysql function"));
    add({"sync_p4file", common, "sync_p4file", OP::late,
         [] { return PGM_PYTHON_MGR::sync_p4file("folder", "//depot/file"); },
         "folder //depot/file", "", "", ""});

    // The two modes of run_python_file have reports of their own.
    const auto run = [](std::vector<const char*> arguments) {
        return [arguments]() mutable {
            return text_of(PGM_PYTHON_MGR::run_python_file(static_cast<int>(arguments.size()),
                                                           arguments.data()));
        };
    };
    m_operations.push_back("run_python_file -c");
    const auto run_code = run({"-c",
                               "import os\n"
                               "if os.environ['PGM_PYTHON_SOAK_OUTCOME'] != 'succeeds':\n"
                               "    raise ValueError('raised by the code')\n"});
    m_calls.push_back({m_operations.back(), OUTCOME::succeeds, run_code, "true", {}, ""});
    m_calls.push_back({m_operations.back(),
                       OUTCOME::fails_silently,
                       run_code,
                       "false",
                       {},
                       "ValueError: raised by the code\n"});
    m_operations.push_back("run_python_file");
    const auto run_script = run({"norvane_sign", "as main program"});
    const std::string failure = report_of(
        20354, "Fail to execute file " + m_installation.common() + "/python/norvane_sign.py");
    const std::vector<std::string> reasons = {failure, report_of(20353, "the first reason"),
                                              report_of(20353, "the second reason")};
    const std::string raised = "ValueError: raised by the script\n";
    for (const SOAK_CALL& call : std::vector<SOAK_CALL>{
             {"", OUTCOME::succeeds, run_script, "true", {}, ""},
             {"", OUTCOME::refuses, run_script, "false", reasons, raised},
             {"", OUTCOME::fails_silently, run_script, "false", {failure}, raised},
             {"",
              OUTCOME::cannot_be_imported,
              run_script,
              "false",
              {failure},
              "ModuleNotFoundError: No module named 'there_is_no_such_module'\n"},
             {"", OUTCOME::has_wrong_type, run_script, "false", {failure}, ""},
             {"", OUTCOME::hangs, run_script, "true", {}, ""},
             {"", OUTCOME::hangs_and_fails, run_script, "false", {failure}, raised}}) {
        m_calls.push_back(call);
        m_calls.back().operation = m_operations.back();
    }
}

const SOAK_CALL& SOAK_CALLS::choose(std::mt19937& random) const {
    // Made by hand: the standard distributions differ between libraries.
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    const char* const operation = m_operations[below(m_operations.size())];
    std::vector<const SOAK_CALL*> calls;
    double weights = 0;
    for (const SOAK_CALL& call : m_calls) {
        if (call.operation == operation) {
            calls.push_back(&call);
            weights += row_of(call.outcome).weight;
        }
    }
    double at = static_cast<double>(below(10000)) / 10000 * weights;
    for (const SOAK_CALL* const call : calls) {
        at -= row_of(call->outcome).weight;
        if (at < 0) {
            return *call;
        }
    }
    return *calls.front();
}

std::string SOAK_CALLS::make(const SOAK_CALL& call) const {
    const ENVIRONMENT_VALUE outcome(outcome_variable, row_of(call.outcome).name);
    RECORDING_RECEIVER receiver;
    std::unique_ptr<CLIENT> client;
    on_script_signal = [&client] { client = std::make_unique<CLIENT>(); };
    offer_script_hooks();
    std::string answer;
    const std::string written = written_by([&] {
        try {
            answer = call.make();
        } catch (const INTERNAL_ERROR_THROWN&) {
            answer = "an internal error";
        }
    });
    on_script_signal = nullptr;

    std::string complaint;
    const auto expect = [&complaint](bool right, const std::string& what) {
        if (!right) {
            complaint += "; " + what;
        }
    };
    expect(answer == call.answer, "gave '" + answer + "', not '" + call.answer + "'");
    std::string reports;
    for (const std::string& report : receiver.reports) {
        reports += "; reported '" + report + "'";
    }
    expect(receiver.reports == call.reports,
           std::to_string(call.reports.size()) + " other reports are right" + reports);
    expect(call.written.empty() ? written.empty() : written.find(call.written) != std::string::npos,
           "wrote '" + written + "'");
    if (is_hanging(call.outcome)) {
        expect(client && client->connected(), "the hanging client was not served");
        expect(!client || client->sees_end_or_reset(), "the hanging client was left hanging");
    }
    expect(!interpreter_is_running(), "left the interpreter running");
    expect(port_is_free(), "left the port taken");
    return complaint.empty()
               ? complaint
               : std::string(call.operation) + " that " + row_of(call.outcome).name + complaint;
}

void SOAK_CALLS::run_bare_session() const {
    const ENVIRONMENT_VALUE outcome(outcome_variable, row_of(OUTCOME::succeeds).name);
    offer_script_hooks();
    const std::string import = "import sys\nsys.path.insert(0, '" + m_installation.common() +
                               "/python')\nimport norvane_sign\n";
    written_by([&import] {
        const INTERPRETER_SESSION session;
        py_eval(import.c_str());
    });
}
