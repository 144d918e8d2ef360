// Many calls in one process.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "tools/call_app.h"

namespace {

// A line after the other of a stream, without their ends.
class LINE_READER {
public:
    explicit LINE_READER(std::FILE* stream) : m_stream(stream) {}
    ~LINE_READER() { std::fclose(m_stream); }
    LINE_READER(const LINE_READER&) = delete;
    LINE_READER& operator=(const LINE_READER&) = delete;

    bool next(std::string& line) {
        line.clear();
        int letter = std::fgetc(m_stream);
        if (letter == EOF) {
            return false;
        }
        for (; letter != EOF && letter != '\n'; letter = std::fgetc(m_stream)) {
            line += static_cast<char>(letter);
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return !has_failed();  // half a line is no call
    }

    bool has_failed() const { return std::ferror(m_stream) != 0; }

private:
    std::FILE* m_stream;
};

// A counter for somebody who watches, where results do not show how far the batch is.
class PROGRESS {
public:
    // The cursor stays where the next line begins, so that the line covers the counter.
    void show(std::size_t calls, std::size_t failed) {
        const auto now = std::chrono::steady_clock::now();
        if (m_is_watched && (m_shown.empty() || now - m_last >= interval)) {
            clear();
            m_shown = std::to_string(calls) + " calls, " + std::to_string(failed) + " failed";
            std::cerr << m_shown << '\r' << std::flush;
            m_last = now;
        }
    }

    void clear() {
        if (!m_shown.empty()) {
            std::cerr << std::string(m_shown.size(), ' ') << '\r' << std::flush;
            m_shown.clear();
        }
    }

    // What a report is to begin with, so that it stands on a line of its own.
    std::string clearing_text() const {
        return m_shown.empty() ? std::string() : std::string(m_shown.size(), ' ') + "\r";
    }

private:
    static constexpr std::chrono::milliseconds interval{100};
    const bool m_is_watched = tool_platform::standard_error_is_terminal() &&
                              !tool_platform::standard_output_is_terminal();
    std::string m_shown;
    std::chrono::steady_clock::time_point m_last;
};

// A result in one line.
std::string in_one_line(const std::string& lines) {
    std::string line;
    for (const char letter : lines) {
        if (letter == '\n') {
            line += "\\n";
        } else if (letter == '\r') {
            line += "\\r";
        } else {
            line += letter;
        }
    }
    return line;
}

int run_line(const std::vector<std::string>& words, CALL& call) {
    PROCESS_SURROUNDINGS::put_back();
    return run_guarded([&] {
        std::vector<std::string> reversed(words.rbegin(), words.rend());
        try {
            make_batch_line_app(call)->parse(std::move(reversed));
            if (call.wants_standard_output()) {
                throw CLI::ValidationError("--out",
                                           "a call of a batch cannot write to standard output");
            }
            return call.run();
        } catch (const CLI::ParseError& error) {
            report_usage(error.what());
            return static_cast<int>(TOOL_BAD_USAGE);
        }
    });
}

}  // namespace

bool split_words(const std::string& line, std::vector<std::string>& words, std::string& reason) {
    if (line.find('\0') != std::string::npos) {
        reason = "a zero byte in the line";
        return false;
    }
    const std::string blanks = " \t";
    bool in_word = false;
    char quote = 0;
    const auto letter_of_word = [&](char letter) {
        if (!in_word) {
            words.emplace_back();
            in_word = true;
        }
        words.back() += letter;
    };
    for (std::size_t place = 0; place < line.size(); ++place) {
        const char letter = line[place];
        const bool is_last = place + 1 == line.size();
        if (quote == '\'' || (quote == '"' && letter != '\\')) {
            if (letter == quote) {
                quote = 0;
            } else {
                words.back() += letter;
            }
        } else if (letter == '\\') {
            if (is_last) {
                reason = "a backslash at the end of the line";
                return false;
            }
            // Between double quotes only these lose their backslash.
            if (quote == '"' && std::strchr("\"\\$`", line[place + 1]) == nullptr) {
                letter_of_word(letter);
            } else {
                letter_of_word(line[++place]);
            }
        } else if (letter == '\'' || letter == '"') {
            quote = letter;
            if (!in_word) {
                words.emplace_back();
                in_word = true;
            }
        } else if (blanks.find(letter) != std::string::npos) {
            in_word = false;
        } else if (letter == '#' && !in_word) {
            return true;
        } else {
            letter_of_word(letter);
        }
    }
    if (quote != 0) {
        reason = std::string("no closing ") + quote;
        return false;
    }
    return true;
}

int run_batch(const CALL_OPTIONS& options) {
    std::string reason;
    std::FILE* const stream = tool_platform::open_input(options.batch, reason);
    if (stream == nullptr) {
        throw USAGE_ERROR("file '" + options.batch + "' cannot be read: " + reason);
    }
    LINE_READER lines(stream);
    const std::string name = options.batch == "-" ? "standard input" : options.batch;
    PROGRESS progress;
    std::size_t calls = 0;
    std::size_t failed = 0;
    std::string line;
    const std::string byte_order_mark = "\xEF\xBB\xBF";  // with which some editors begin a file
    for (long long number = 1; lines.next(line); ++number) {
        if (number == 1 && line.compare(0, byte_order_mark.size(), byte_order_mark) == 0) {
            line.erase(0, byte_order_mark.size());
        }
        std::vector<std::string> words;
        const bool is_whole = split_words(line, words, reason);
        if (is_whole && words.empty()) {
            continue;
        }
        progress.show(calls, failed);
        set_report_prefix(progress.clearing_text() + name + ":" + std::to_string(number) + ": ");
        forget_reports();
        CALL call(true);
        int status = TOOL_BAD_USAGE;
        if (is_whole) {
            status = run_line(words, call);
        } else {
            report_usage(reason);
        }
        ++calls;
        failed += status == TOOL_SUCCESS ? 0 : 1;
        const std::string result =
            options.json
                ? JSON_OBJECT().number("line", number).members_of(call.members(status)).str()
                : std::to_string(number) + ": " +
                      (status == TOOL_SUCCESS ? in_one_line(call.lines())
                                              : "failed, status " + std::to_string(status));
        set_report_prefix("");
        if (print_result(result + "\n") != TOOL_SUCCESS) {
            return TOOL_FAILURE;
        }
    }
    const int read_failure = lines.has_failed() ? errno : 0;
    progress.clear();
    if (lines.has_failed()) {
        std::cerr << "error: " << name
                  << " cannot be read to its end: " << std::strerror(read_failure) << std::endl;
    }
    std::cerr << name << ": " << calls << (calls == 1 ? " call, " : " calls, ") << calls - failed
              << " succeeded, " << failed << " failed" << std::endl;
    return failed == 0 && !lines.has_failed() ? TOOL_SUCCESS : TOOL_FAILURE;
}
