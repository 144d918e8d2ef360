// Writes the manual pages of the tools and their completions for bash and zsh, all from the
// descriptions that --help prints.
//
//     tool_pages FOLDER      below which share/man/man1 and so on are made

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "pgm_python_version.h"
#include "tools/call_app.h"
#include "tools/default_scripts.h"
#include "tools/run_app.h"

namespace {

// An option or a positional argument.
struct DESCRIBED_OPTION {
    std::vector<std::string> names;  // with their dashes; one without for a positional argument
    std::string value;               // what stands for the value; empty where there is none
    std::string description;
    bool is_positional = false;
    bool is_required = false;
    bool is_repeated = false;
    std::vector<std::string> values;  // the possible ones, or some of them; empty where unknown
    bool takes_file = false;
};

struct DESCRIBED_COMMAND {
    std::string name;
    std::string description;
    std::vector<DESCRIBED_OPTION> options;
    std::vector<DESCRIBED_COMMAND> operations;
};

std::vector<std::string> values_of(const std::string& command, const std::string& option) {
    if (option == "--calls") {
        return kinds_of_session();
    }
    if (option == "SCRIPT" && command != "get_nwfmt_data") {
        std::vector<std::string> names;
        for (const DEFAULT_SCRIPT& script : default_scripts()) {
            names.push_back(script.name);
        }
        return names;
    }
    if (option == "FUNCTION" && command == "get_nwfmt_data") {
        return network_format_functions();
    }
    return {};
}

DESCRIBED_COMMAND describe(const CLI::App& app) {
    DESCRIBED_COMMAND command;
    command.name = app.get_name();
    command.description = app.get_description();
    for (const CLI::Option* const option : app.get_options()) {
        DESCRIBED_OPTION described;
        described.is_positional = option->get_positional();
        if (described.is_positional) {
            described.names = {option->get_name(true)};
        } else {
            for (const std::string& name : option->get_snames()) {
                described.names.push_back("-" + name);
            }
            for (const std::string& name : option->get_lnames()) {
                described.names.push_back("--" + name);
            }
            described.value =
                option->get_items_expected_max() == 0 ? std::string() : option->get_type_name();
        }
        described.description = option->get_description();
        described.is_required = option->get_required();
        described.is_repeated = option->get_items_expected_max() > 1;
        described.values = values_of(command.name, described.names.back());
        described.takes_file = (described.is_positional && described.is_repeated) ||
                               option->get_type_name() == "FILE" || described.names[0] == "SCRIPT";
        command.options.push_back(described);
    }
    for (const CLI::App* const operation : app.get_subcommands(nullptr)) {
        command.operations.push_back(describe(*operation));
    }
    return command;
}

std::string joined(const std::vector<std::string>& texts, const std::string& separator) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : separator) + text;
    }
    return all;
}

// Manual pages

std::string roff(const std::string& text) {
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\\') {
            escaped += "\\e";
        } else if (letter == '-') {
            escaped += "\\-";
        } else {
            escaped += letter;
        }
    }
    // A line must not begin as a request does.
    return (!text.empty() && (text[0] == '.' || text[0] == '\'') ? "\\&" : "") + escaped;
}

std::string roff_options(const DESCRIBED_COMMAND& command) {
    std::string page;
    for (const DESCRIBED_OPTION& option : command.options) {
        page += ".TP\n";
        if (option.is_positional) {
            page += "\\fI" + roff(option.names[0]) + "\\fR" + (option.is_repeated ? "..." : "");
        } else {
            std::vector<std::string> names;
            for (const std::string& name : option.names) {
                names.push_back(
                    "\\fB" + roff(name) + "\\fR" +
                    (option.value.empty() ? "" : " \\fI" + roff(option.value) + "\\fR"));
            }
            page += joined(names, ", ");
        }
        page += "\n" + roff(option.description) + "\n";
    }
    return page;
}

std::string roff_synopsis(const DESCRIBED_COMMAND& command) {
    std::string line = "\\fB" + roff(command.name) + "\\fR [\\fIOPTION\\fR]...";
    for (const DESCRIBED_OPTION& option : command.options) {
        if (option.is_positional) {
            const std::string name = "\\fI" + roff(option.names[0]) + "\\fR";
            line += option.is_required ? " " + name : " [" + name + "]";
            line += option.is_repeated ? "..." : "";
        }
    }
    return line;
}

// The first sentence of a description, in the form of a phrase.
std::string phrase(const std::string& description) {
    std::string first = description.substr(0, description.find(". "));
    if (!first.empty() && first.back() == '.') {
        first.pop_back();
    }
    if (!first.empty() && first[0] >= 'A' && first[0] <= 'Z') {
        first[0] = static_cast<char>(first[0] - 'A' + 'a');
    }
    return first;
}

std::string upper_case(std::string text) {
    for (char& letter : text) {
        letter = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
    }
    return text;
}

std::string man_page(const DESCRIBED_COMMAND& tool, const std::string& footer,
                     const std::string& see_also) {
    std::string page = ".TH " + upper_case(tool.name) +
                       " 1 \"\" \"pgm_python " PGM_PYTHON_VERSION "\" \"pgm_python\"\n.SH NAME\n" +
                       tool.name + " \\- " + roff(phrase(tool.description)) + "\n.SH SYNOPSIS\n";
    page += tool.operations.empty()
                ? roff_synopsis(tool) + "\n"
                : "\\fB" + tool.name +
                      "\\fR [\\fIOPTION\\fR]... \\fIOPERATION\\fR [\\fIARGUMENT\\fR]...\n";
    page += ".SH DESCRIPTION\n" + roff(tool.description) + "\n.SH OPTIONS\n" + roff_options(tool);
    if (!tool.operations.empty()) {
        page += ".SH OPERATIONS\n";
        for (const DESCRIBED_COMMAND& operation : tool.operations) {
            page += ".SS " + operation.name + "\n" + roff_synopsis(operation) + "\n.PP\n" +
                    roff(operation.description) + "\n" + roff_options(operation);
        }
    }
    page +=
        ".SH EXIT STATUS\n" + roff(footer) +
        "\n.SH ENVIRONMENT\n"
        ".TP\n\\fBPGM_COMMON_PROGRAMMER_DIR\\fR\nThe folder of the common scripts\n"
        ".TP\n\\fBPGM_UNSHIPPED_PROGRAMMER_DIR\\fR\nThe folder of the scripts for internal use\n"
        ".TP\n\\fBPGM_BIN_DIR\\fR\nThe folder of the suite's programs\n"
        ".TP\n\\fBPGM_PYTHON_CALLS\\fR, \\fBPGM_PYTHON_TRACEBACK\\fR\n"
        "As the options \\fB\\-\\-calls\\fR and \\fB\\-\\-traceback\\fR\n"
        ".SH SEE ALSO\n.BR " +
        see_also + " (1)\n";
    return page;
}

// Completions

std::string option_names(const DESCRIBED_COMMAND& command) {
    std::vector<std::string> names;
    for (const DESCRIBED_OPTION& option : command.options) {
        if (!option.is_positional) {
            names.insert(names.end(), option.names.begin(), option.names.end());
        }
    }
    return joined(names, " ");
}

std::string operation_names(const DESCRIBED_COMMAND& tool) {
    std::vector<std::string> names;
    for (const DESCRIBED_COMMAND& operation : tool.operations) {
        names.push_back(operation.name);
    }
    return joined(names, " ");
}

// The options with a value, as a pattern of a shell: all, or those whose values are not known.
std::string pattern_with_value(const DESCRIBED_COMMAND& tool, bool all) {
    std::vector<std::string> names;
    const auto add_those_of = [&names, all](const DESCRIBED_COMMAND& command) {
        for (const DESCRIBED_OPTION& option : command.options) {
            if (!option.value.empty() && (all || option.values.empty()) &&
                std::find(names.begin(), names.end(), option.names.back()) == names.end()) {
                names.push_back(option.names.back());
            }
        }
    };
    add_those_of(tool);
    for (const DESCRIBED_COMMAND& operation : tool.operations) {
        add_those_of(operation);
    }
    return joined(names, " | ");
}

// Lines of a case statement over the command and the number of positional arguments before.
std::string bash_values(const DESCRIBED_COMMAND& command, const std::string& name) {
    std::string lines;
    std::size_t place = 0;
    for (const DESCRIBED_OPTION& option : command.options) {
        if (option.is_positional) {
            if (!option.values.empty()) {
                lines += "    " + name + ":" + std::to_string(place) + ") words='" +
                         joined(option.values, " ") + "' ;;\n";
            }
            ++place;
        }
    }
    return lines;
}

std::string bash_completion(const DESCRIBED_COMMAND& tool) {
    const std::string function = "_" + tool.name;
    const bool has_operations = !tool.operations.empty();
    std::string text =
        "# Completion of " + tool.name +
        " for bash.\n"
        "# shellcheck shell=bash\n\n" +
        function +
        "() {\n"
        "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
        "    local command=" +
        (has_operations ? "''" : tool.name) +
        " words='' options='' index positionals=0\n"
        "    COMPREPLY=()\n"
        "    for ((index = 1; index < COMP_CWORD; index++)); do\n"
        "        case ${COMP_WORDS[index]} in\n"
        "        " +
        pattern_with_value(tool, true) +
        ") ((index++)) ;;\n"
        "        -*) ;;\n"
        "        *)\n";
    text += has_operations ? "            if [ -z \"$command\" ]; then\n"
                             "                command=${COMP_WORDS[index]}\n"
                             "            else\n"
                             "                ((positionals++))\n"
                             "            fi\n"
                           : "            ((positionals++))\n";
    text +=
        "            ;;\n"
        "        esac\n"
        "    done\n"
        "    case $previous in\n";
    std::string values_of_options;
    for (const DESCRIBED_OPTION& option : tool.options) {
        if (!option.value.empty() && !option.values.empty()) {
            values_of_options += "    " + joined(option.names, " | ") +
                                 ")\n        mapfile -t COMPREPLY < <(compgen -W '" +
                                 joined(option.values, " ") +
                                 "' -- \"$current\")\n        return\n        ;;\n";
        }
    }
    const std::string others = pattern_with_value(tool, false);
    text += values_of_options + (others.empty() ? "" : "    " + others + ") return ;;\n") +
            "    esac\n";
    text += "    case $command in\n";
    if (has_operations) {
        text += "    '')\n        options='" + option_names(tool) + "'\n        words='" +
                operation_names(tool) + "'\n        ;;\n";
        for (const DESCRIBED_COMMAND& operation : tool.operations) {
            text += "    " + operation.name + ") options='" + option_names(operation) + "' ;;\n";
        }
    } else {
        text += "    *) ((positionals == 0)) && options='" + option_names(tool) + "' ;;\n";
    }
    text += "    esac\n    case $command:$positionals in\n";
    if (has_operations) {
        for (const DESCRIBED_COMMAND& operation : tool.operations) {
            text += bash_values(operation, operation.name);
        }
    } else {
        text += bash_values(tool, tool.name);
    }
    text +=
        "    esac\n"
        "    [[ $current == -* ]] && words=$options\n"
        "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n";
    // Scripts are files, too.
    text +=
        std::string(
            "    if [[ $current != -* && -n $command ]]; then\n"
            "        mapfile -t -O \"${#COMPREPLY[@]}\" COMPREPLY < <(compgen -f -- \"$current\")\n"
            "    fi\n") +
        "}\n"
        "complete -o filenames -o default -F " +
        function + " " + tool.name + "\n";
    return text;
}

// A text of a completion for zsh, between single quotes there.
std::string zsh(const std::string& text) {
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\'') {
            escaped += "'\\''";
        } else if (letter == ':' || letter == '[' || letter == ']' || letter == '\\') {
            escaped += {'\\', letter};
        } else {
            escaped += letter;
        }
    }
    return escaped;
}

std::string zsh_action(const DESCRIBED_OPTION& option) {
    if (!option.values.empty() && option.takes_file) {
        return "{ compadd " + joined(option.values, " ") + "; _files }";
    }
    if (!option.values.empty()) {
        return "(" + joined(option.values, " ") + ")";
    }
    return option.takes_file ? "_files" : " ";
}

std::string zsh_arguments(const DESCRIBED_COMMAND& command, const std::string& indent) {
    std::string lines;
    int place = 0;
    for (const DESCRIBED_OPTION& option : command.options) {
        lines += " \\\n" + indent;
        if (option.is_positional) {
            lines += "'" + (option.is_repeated ? "*" : std::to_string(++place)) + ":" +
                     zsh(option.names[0]) + ":" + zsh_action(option) + "'";
            continue;
        }
        const std::string rest =
            "[" + zsh(option.description) + "]" +
            (option.value.empty() ? "" : ":" + zsh(option.value) + ":" + zsh_action(option)) + "'";
        const std::string names = joined(option.names, " ");
        if (option.names.size() == 1) {
            lines += option.is_repeated ? "'*" : "'";
            lines += names;
        } else {
            lines += "'(" + names + ")'{" + joined(option.names, ",") + "}'";
        }
        lines += rest;
    }
    return lines;
}

std::string zsh_completion(const DESCRIBED_COMMAND& tool) {
    std::string text = "#compdef " + tool.name + "\n\n";
    if (tool.operations.empty()) {
        return text + "_arguments -S" + zsh_arguments(tool, "  ") + "\n";
    }
    text +=
        "local curcontext=\"$curcontext\" state line\n"
        "typeset -A opt_args\n"
        "_arguments -C -S" +
        zsh_arguments(tool, "  ") +
        " \\\n  '1:operation:->operation'"
        " \\\n  '*::argument:->arguments'\n"
        "case $state in\n"
        "operation)\n"
        "  local -a operations=(\n";
    for (const DESCRIBED_COMMAND& operation : tool.operations) {
        text += "    '" + operation.name + ":" + zsh(operation.description) + "'\n";
    }
    text +=
        "  )\n"
        "  _describe operation operations\n"
        "  ;;\n"
        "arguments)\n"
        "  case $line[1] in\n";
    for (const DESCRIBED_COMMAND& operation : tool.operations) {
        text += "  " + operation.name + ")\n    _arguments -S" +
                zsh_arguments(operation, "      ") + "\n    ;;\n";
    }
    return text + "  esac\n  ;;\nesac\n";
}

void write(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

void write_pages(const std::filesystem::path& folder, const CLI::App& app,
                 const std::string& see_also) {
    const DESCRIBED_COMMAND tool = describe(app);
    write(folder / "man/man1" / (tool.name + ".1"), man_page(tool, app.get_footer(), see_also));
    write(folder / "bash-completion/completions" / tool.name, bash_completion(tool));
    write(folder / "zsh/site-functions" / ("_" + tool.name), zsh_completion(tool));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: tool_pages FOLDER\n";
        return TOOL_BAD_USAGE;
    }
    try {
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / "share";
        CALL call(false);
        CALL_OPTIONS call_options;
        write_pages(folder, *make_call_app(call, call_options), "pgm_python_run");
        RUN_OPTIONS run_options;
        write_pages(folder, *make_run_app(run_options), "pgm_python_call");
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return TOOL_FAILURE;
    }
    return TOOL_SUCCESS;
}
