// A Python process a call: what a program does that has no embedded interpreter.

#include "bench/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "bench/contestant.h"

extern char** environ;

namespace {

void write_all(int file, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = ::write(file, bytes, size);
        if (count <= 0) {
            break;
        }
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    ::close(file);
}

std::string read_all(int file) {
    std::string text;
    std::size_t size = 0;
    for (;;) {
        if (text.size() - size < 0x10000) {
            text.resize(text.size() * 2 + 0x20000);
        }
        const ssize_t count = ::read(file, &text[size], text.size() - size);
        if (count <= 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    ::close(file);
    text.resize(size);
    return text;
}

}  // namespace

OUTCOME run_process(std::vector<std::string> arguments, const void* input, std::size_t size) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        stop("no pipe");
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(&argument[0]);
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    if (::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        stop("cannot start " + arguments[0]);
    }
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    std::thread writer;
    if (size == 0) {
        ::close(in[1]);
    } else {
        writer = std::thread([&] { write_all(in[1], input, size); });
    }
    OUTCOME outcome;
    outcome.output = read_all(out[0]);
    if (writer.joinable()) {
        writer.join();
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

namespace {

class PROCESS : public CONTESTANT {
public:
    std::string name() const override { return "process"; }

    unsigned long query_opn_name(const std::string& name) override {
        return std::stoul(succeed(
            {common_script("pgm_python_common_function.pyc"), "query_opn_name", "text", name}));
    }

    std::string get_username(const std::string& user) override {
        return succeed(
            {common_script("pgm_python_common_function.pyc"), "get_username", "text", user});
    }

    BUFFER generate_compact_cert(unsigned long first_number, unsigned long second_number,
                                 const std::vector<unsigned char>& content) override {
        return buffer_of(succeed(
            {common_script("compact_cert_sign.pyc"), "external_sign_function", "certificate",
             std::to_string(first_number), std::to_string(second_number), "", ""},
            content.data(), content.size()));
    }

    BUFFER modify_bitstream(const std::vector<unsigned char>& data) override {
        return buffer_of(succeed(
            {unshipped_folder() + "/python/pgm_internal_tool.pyc", "change_bitstream", "bitstream"},
            data.data(), data.size()));
    }

    std::vector<unsigned char> get_chunks(const std::string& text,
                                          const std::string& kind) override {
        const std::string output =
            succeed({network_format(), "get_bram_chunks", "chunks", text, kind});
        return std::vector<unsigned char>(output.begin(), output.end());
    }

    std::vector<unsigned char> get_hash_and_size(const std::string& kind, const TEXT_MAP& map,
                                                 unsigned long& size) override {
        // The texts of the benchmarks need no escapes.
        std::string object;
        for (const auto& entry : map) {
            object +=
                (object.empty() ? "\"" : ", \"") + entry.first + "\": \"" + entry.second + "\"";
        }
        object = "{" + object + "}";
        const std::string json = "[" + object + "," + object + "," + object + "," + object + "]";
        const std::string output =
            succeed({network_format(), "get_bram_hash_and_size", "maps", "", kind}, json.data(),
                    json.size());
        const std::size_t line_end = output.find('\n');
        size = std::stoul(output.substr(0, line_end));
        return std::vector<unsigned char>(
            output.begin() + static_cast<std::ptrdiff_t>(line_end) + 1, output.end());
    }

    bool generate_rim(const std::string& family, std::vector<std::string>& reasons) override {
        const OUTCOME outcome =
            run({common_script("rim_generator.pyc"), "external_make_rim_function", "manifest",
                 rim_input, family, std::to_string(static_cast<int>(rim_number)), rim_output});
        reasons.clear();
        for (std::size_t at = 0; at < outcome.output.size();) {
            const std::size_t end = outcome.output.find('\n', at);
            if (end > at) {
                reasons.push_back(outcome.output.substr(at, end - at));
            }
            at = end + 1;
        }
        return outcome.status == 0;
    }

private:
    static std::string common_script(const char* name) {
        return common_folder() + "/python/" + name;
    }

    static std::string network_format() { return common_folder() + "nwfmt/network_format.py"; }

    static BUFFER buffer_of(const std::string& output) {
        BUFFER buffer;
        buffer.size = output.size();
        buffer.data.reset(new unsigned char[buffer.size]);
        output.copy(reinterpret_cast<char*>(buffer.data.get()), output.size());
        return buffer;
    }

    static OUTCOME run(std::vector<std::string> arguments, const void* input = nullptr,
                       std::size_t size = 0) {
        arguments.insert(arguments.begin(), {BENCH_PYTHON, BENCH_DRIVER});
        return run_process(std::move(arguments), input, size);
    }

    static std::string succeed(std::vector<std::string> arguments, const void* input = nullptr,
                               std::size_t size = 0) {
        OUTCOME outcome = run(std::move(arguments), input, size);
        if (outcome.status != 0) {
            stop("the process failed: " + outcome.output);
        }
        return std::move(outcome.output);
    }
};

}  // namespace

std::unique_ptr<CONTESTANT> make_process() {
    return std::unique_ptr<CONTESTANT>(new PROCESS);
}
