// The manual pages and completions of the tools, beside what --help prints.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "tests/tool_runs.h"

namespace {

const std::string share = build_folder + "/share/";

std::string content_of(const std::string& file) {
    std::ifstream stream(std::filesystem::u8path(file), std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

// Without the marks of a manual page.
std::string plain(const std::string& roff) {
    std::string text = std::regex_replace(roff, std::regex(R"(\\f.)"), "");
    text = std::regex_replace(text, std::regex(R"(\\-)"), "-");
    text = std::regex_replace(text, std::regex(R"(\\&)"), "");
    return std::regex_replace(text, std::regex(R"(\\e)"), "\\");
}

// With a single blank for each row of blanks and line ends.
std::string in_a_row(const std::string& text) {
    return std::regex_replace(text, std::regex("\\s+"), " ");
}

struct ENTRY {
    std::string names;
    std::string description;
};

// A part of a page: the entries of a tool or of one of its operations.
struct PART {
    std::string text;
    std::vector<ENTRY> entries;
};

PART part_of(const std::string& page, const std::string& begin, const std::string& end) {
    const std::size_t from = page.find(begin);
    EXPECT_NE(from, std::string::npos) << begin << page;
    const std::size_t to = page.find(end, from + begin.size());
    PART part;
    part.text = page.substr(from, to - from);
    std::istringstream lines(part.text);
    for (std::string line; std::getline(lines, line);) {
        if (line == ".TP") {
            ENTRY entry;
            std::getline(lines, entry.names);
            std::getline(lines, entry.description);
            part.entries.push_back(entry);
        }
    }
    return part;
}

// How many options and positional arguments a help lists.
std::size_t count_of_rows(const std::string& help) {
    std::size_t count = 0;
    std::istringstream lines(help);
    bool lists = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "Positionals:" || line == "Options:") {
            lists = true;
        } else if (line.empty() || line == "Subcommands:") {
            lists = false;
        } else if (lists && starts_with(line, "  ") && line[2] != ' ') {
            ++count;
        }
    }
    return count;
}

void compare(const std::string& help, const PART& part) {
    const std::string text = in_a_row(help);
    EXPECT_EQ(count_of_rows(help), part.entries.size()) << help << part.text;
    for (const ENTRY& entry : part.entries) {
        const std::string name = entry.names.substr(0, entry.names.find_first_of(" ,."));
        const std::size_t place = text.find(" " + name);
        EXPECT_NE(place, std::string::npos) << name << help;
        EXPECT_NE(text.find(" " + entry.description), std::string::npos)
            << entry.description << help;
    }
}

std::vector<std::string> operations() {
    const std::string help = call({"--help"}).output;
    std::istringstream lines(help.substr(help.find("Subcommands:\n")));
    std::vector<std::string> names;
    const std::regex row("  (\\w+)( .*)?");
    std::smatch name;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, name, row)) {
            names.push_back(name[1]);
        }
    }
    EXPECT_EQ(names.size(), 13U);
    return names;
}

// The words that bash offers for the last of `words`.
std::vector<std::string> offered_by_bash(const std::vector<std::string>& words) {
    std::vector<std::string> arguments = {
        "-c",
        "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); \"_$1\"; "
        "for word in \"${COMPREPLY[@]}\"; do echo \"$word\"; done",
        share + "bash-completion/completions/" + words[0]};
    arguments.insert(arguments.end(), words.begin(), words.end());
    const PROGRAM_RESULT result = run_program("bash", arguments);
    EXPECT_EQ(result.errors, "");
    std::istringstream lines(result.output);
    std::vector<std::string> offered;
    for (std::string line; std::getline(lines, line);) {
        offered.push_back(line);
    }
    return offered;
}

typedef std::vector<std::string> WORDS;

bool holds(const WORDS& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

TEST(ManualPages, SayWhatHelpSays) {
    for (const std::string tool : {"pgm_python_run", "pgm_python_call"}) {
        const std::string page = plain(content_of(share + "man/man1/" + tool + ".1"));
        const std::string help = start(tool, {"--help"}, {}).output;
        compare(help, part_of(page, ".SH OPTIONS\n", ".SH "));
        const std::string description = help.substr(0, help.find('\n'));
        EXPECT_EQ(part_of(page, ".SH DESCRIPTION\n", ".SH ").text,
                  ".SH DESCRIPTION\n" + description + "\n");
        const std::string status = part_of(page, ".SH EXIT STATUS\n", ".SH ").text.substr(16);
        EXPECT_TRUE(starts_with(status, "Exit status: 0 ")) << status;
        EXPECT_NE(help.find(status), std::string::npos) << status << help;
    }
}

TEST(ManualPages, SayOfEachOperationWhatHelpSays) {
    const std::string page = plain(content_of(share + "man/man1/pgm_python_call.1"));
    for (const std::string& operation : operations()) {
        const std::string help = call({operation, "--help"}).output;
        const PART part = part_of(page, ".SS " + operation + "\n", ".S");
        compare(help, part);
        EXPECT_NE(part.text.find("\n" + help.substr(0, help.find('\n')) + "\n"), std::string::npos)
            << help << part.text;
    }
}

TEST(ManualPages, AreReadWithoutWarnings) {
    if (run_program("sh", {"-c", "command -v man"}).status != 0) {
        GTEST_SKIP() << "the program man is not installed";
    }
    for (const char* const tool : {"pgm_python_run", "pgm_python_call"}) {
        const PROGRAM_RESULT result = run_program(
            "man",
            {"--warnings", "--local-file", "--encoding=UTF-8", share + "man/man1/" + tool + ".1"},
            {utf8_output_setting(), "MANWIDTH=80"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_NE(result.output.find("EXIT STATUS"), std::string::npos) << result.output;
    }
}

TEST(Completions, KnowEveryOption) {
    for (const std::string& operation : operations()) {
        const std::string help = call({operation, "--help"}).output;
        const WORDS offered = offered_by_bash({"pgm_python_call", operation, "--"});
        const std::string zsh = content_of(share + "zsh/site-functions/_pgm_python_call");
        const std::size_t begin = zsh.find("  " + operation + ")\n");
        ASSERT_NE(begin, std::string::npos) << operation;
        const std::string part = zsh.substr(begin, zsh.find(";;", begin) - begin);
        const std::regex name("--[a-z][-a-z0-9]*");
        const std::string rows = help.substr(help.find("Options:"));
        std::size_t count = 0;
        for (std::sregex_iterator found(rows.begin(), rows.end(), name), end; found != end;
             ++found) {
            ++count;
            EXPECT_TRUE(holds(offered, found->str())) << operation << found->str();
            EXPECT_NE(part.find(found->str()), std::string::npos) << operation << found->str();
        }
        EXPECT_EQ(offered.size(), count) << operation;
    }
}

TEST(Completions, OfferInBashWhatFits) {
    EXPECT_EQ(offered_by_bash({"pgm_python_call", "query_"}),
              (WORDS{"query_opn_enum", "query_opn_name"}));
    EXPECT_EQ(offered_by_bash({"pgm_python_call", "--calls", "k"}), WORDS{"kept"});
    EXPECT_EQ(offered_by_bash({"pgm_python_call", "--calls", "kept", "--json", "sync"}),
              WORDS{"sync_p4file"});
    EXPECT_EQ(offered_by_bash({"pgm_python_call", "get_nwfmt_data", "x.py", "get_bram_c"}),
              WORDS{"get_bram_chunks"});
    EXPECT_EQ(offered_by_bash({"pgm_python_call", "modify_bitstream", "--out", "x", "y", "re_"}),
              WORDS{"re_sign"});
    EXPECT_EQ(offered_by_bash({"pgm_python_run", "itoo"}), WORDS{"itool"});
    EXPECT_EQ(offered_by_bash({"pgm_python_run", "--li"}), WORDS{"--list"});
    EXPECT_EQ(offered_by_bash({"pgm_python_run", "itool", "--li"}), WORDS());
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("itool.py", "");
    EXPECT_EQ(offered_by_bash({"pgm_python_run", folder.path() + "/it"}), WORDS{file});
}

// Asks a zsh on a terminal of its own for the words that it offers.
TEST(Completions, OfferInZshWhatFits) {
    if (run_program("sh", {"-c", "command -v zsh"}).status != 0) {
        GTEST_SKIP() << "zsh is not installed";
    }
    const std::string code =
        "zmodload zsh/zpty\n"
        "zpty shell zsh -f -i\n"
        "ask() { zpty -w shell \"$1\"; }\n"
        "ask 'PROMPT= TERM=dumb; unsetopt zle_bracketed_paste; fpath=('$1' $fpath)'\n"
        "ask 'autoload -U compinit && compinit -u -D; bindkey \"^I\" complete-word; "
        "zstyle \":completion:*\" menu no'\n"
        "ask 'echo rea''dy'; zpty -r shell answer '*ready*'\n"
        "complete() { zpty -w -n shell \"$1\"$'\\t'; zpty -r shell answer \"*$2*\" && echo \"$2\"; "
        "zpty -w -n shell $'\\x15'; }\n"
        "complete 'pgm_python_call query_opn_e' 'query_opn_enum'\n"
        "complete 'pgm_python_call --calls fr' '--calls fresh'\n"
        "complete 'pgm_python_call get_nwfmt_data x.py get_bram_c' 'get_bram_chunks'\n"
        "complete 'pgm_python_call read_mif --cont' '--continuous'\n"
        "complete 'pgm_python_run itoo' 'itool'\n"
        "zpty -d shell\n";
    const PROGRAM_RESULT result = run_program(
        "timeout", {"60", "zsh", "-f", "-c", code, "zsh", share + "zsh/site-functions"});
    EXPECT_EQ(result.output,
              "query_opn_enum\n--calls fresh\nget_bram_chunks\n--continuous\nitool\n")
        << result.errors;
}
