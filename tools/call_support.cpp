#include "tools/call_support.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "zel/zel_fio/zel_fio.h"

namespace {

// How many bytes of a result are shown.
constexpr std::size_t described_bytes = 16;

std::filesystem::path& noted_folder() {
    static std::filesystem::path folder;
    return folder;
}
unsigned int noted_mask = 0;

std::uint32_t number_of(const std::string& option, const std::string& text) {
    const bool hexadecimal = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char* const begin = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t number = 0;
    const std::from_chars_result read = std::from_chars(begin, end, number, hexadecimal ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != end) {
        throw CLI::ValidationError(option, "'" + text + "' is not a number from 0 to 0xFFFFFFFF");
    }
    return number;
}

bool is_option(const std::string& name) {
    return name[0] == '-';
}

std::vector<unsigned char> content_of(const CALL& call, const std::string& option,
                                      const std::string& file) {
    if (file == "-" && call.is_of_batch()) {
        throw CLI::ValidationError(option, "a call of a batch cannot read the standard input");
    }
    std::string reason;
    const auto close = [](std::FILE* stream) { std::fclose(stream); };
    const std::unique_ptr<std::FILE, decltype(close)> stream(
        tool_platform::open_input(file, reason), close);
    std::vector<unsigned char> content;
    if (stream != nullptr) {
        unsigned char buffer[1U << 16U];
        for (std::size_t size = sizeof buffer; size == sizeof buffer;) {
            size = std::fread(buffer, 1, sizeof buffer, stream.get());
            content.insert(content.end(), buffer, buffer + size);
        }
        if (std::ferror(stream.get()) != 0) {
            reason = std::strerror(errno);
        }
    }
    if (!reason.empty()) {
        throw CLI::ValidationError(option, "file '" + file + "' cannot be read: " + reason);
    }
    return content;
}

CLI::Option* add_checked(CLI::App& command, const std::string& name, const std::string& description,
                         const std::function<void(const std::string&)>& take) {
    return command.add_option_function<std::string>(name, take, description)
        ->required(!is_option(name));
}

void refuse_empty(const std::string& name, const std::string& text) {
    if (text.empty()) {
        throw CLI::ValidationError(name, "must not be empty");
    }
}

// Scripts get texts as str.
void refuse_other_than_utf8(const std::string& name, const std::string& text) {
    if (!is_utf8(text)) {
        throw CLI::ValidationError(name, "'" + text + "' is not UTF-8 text");
    }
}

std::string count_of_bytes(std::size_t size) {
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

}  // namespace

void PROCESS_SURROUNDINGS::note() {
    std::error_code ignored;
    noted_folder() = std::filesystem::current_path(ignored);
    noted_mask = tool_platform::mask_of_new_files();
}

void PROCESS_SURROUNDINGS::put_back() {
    std::error_code ignored;
    if (!noted_folder().empty()) {
        std::filesystem::current_path(noted_folder(), ignored);
    }
    tool_platform::set_mask_of_new_files(noted_mask);
}

void CALL::ask_for(const std::string& operation, std::function<void()> work) {
    m_operation = operation;
    m_work = std::move(work);
}

int CALL::run() {
    m_work();
    if (m_is_answered) {
        return TOOL_SUCCESS;
    }
    if (!tool_has_reported()) {
        report_error("the script gave no usable answer");
    }
    return TOOL_FAILURE;
}

void CALL::answer(const std::string& text) {
    if (!text.empty()) {
        answer_rows(text);
    }
}

void CALL::answer(unsigned long number) {
    tool_platform::leave_if_forked(TOOL_SUCCESS);
    m_is_answered = true;
    m_lines.push_back(std::to_string(number));
    m_members.number("result", static_cast<long long>(number));
}

void CALL::answer_rows(const std::string& rows) {
    tool_platform::leave_if_forked(TOOL_SUCCESS);
    m_is_answered = true;
    if (!rows.empty()) {
        m_lines.push_back(rows);
    }
    m_members.text("result", rows);
}

void CALL::answer(const std::string& out, const unsigned char* bytes, std::size_t size,
                  tool_platform::SECRECY secrecy) {
    tool_platform::leave_if_forked(TOOL_SUCCESS);
    std::string reason;
    std::string line = count_of_bytes(size);
    std::string place;
    if (out == "-") {
        place = "standard output";
        reason = tool_platform::write_to_standard_output(bytes, size, false);
    } else if (!out.empty()) {
        place = "file '" + out + "'";
        PROCESS_SURROUNDINGS::put_back();
        reason = tool_platform::write_file(out, bytes, size, secrecy);
        line += " written to " + out;
    } else if (size > 0 && secrecy == tool_platform::SECRECY::OPEN) {
        const std::size_t shown = std::min(size, described_bytes);
        line +=
            ": " +
            PGM_COMMON::convert_byte_array_to_standard_hex_string(
                const_cast<unsigned char*>(bytes), static_cast<unsigned long>(shown), true, false) +
            (shown < size ? "..." : "");
    }
    if (!reason.empty()) {
        report_error("the result cannot be written to " + place + ": " + reason);
        return;
    }
    m_is_answered = true;
    m_members.number("size", static_cast<long long>(size));
    if (out == "-") {
        return;
    }
    m_lines.push_back(line);
    if (!out.empty()) {
        m_members.text("file", out);
    }
}

void CALL::add_fact(const std::string& name, const std::string& label, unsigned long value) {
    m_facts += (m_facts.empty() ? "" : ", ") + label + " " + std::to_string(value);
    m_members.number(name, static_cast<long long>(value));
}

void CALL::fail(const std::string& why) {
    tool_platform::leave_if_forked(TOOL_FAILURE);
    if (!tool_has_reported()) {
        report_error(why);
    }
}

std::string CALL::lines() const {
    if (!m_is_answered) {
        return std::string();
    }
    std::string all = m_facts;
    for (const std::string& line : m_lines) {
        all += (all.empty() ? "" : "\n") + line;
    }
    return all;
}

JSON_OBJECT CALL::members(int status) const {
    JSON_OBJECT members;
    if (!m_operation.empty()) {
        members.text("operation", m_operation);
    }
    members.number("status", status);
    if (m_is_answered) {
        members.members_of(m_members);
    }
    return members.json("messages", reports_as_json());
}

void on_call(CLI::App& command, CALL& call, std::function<void()> work) {
    command.callback(
        [&command, &call, work = std::move(work)] { call.ask_for(command.get_name(), work); });
}

std::shared_ptr<std::string> add_text(CLI::App& command, const std::string& name,
                                      const std::string& description) {
    auto text = std::make_shared<std::string>();
    add_checked(command, name, description, [text, name](const std::string& given) {
        refuse_other_than_utf8(name, given);
        *text = given;
    });
    return text;
}

std::shared_ptr<std::string> add_name(CLI::App& command, const std::string& name,
                                      const std::string& description) {
    auto text = std::make_shared<std::string>();
    add_checked(command, name, description, [text, name](const std::string& given) {
        refuse_empty(name, given);
        refuse_other_than_utf8(name, given);
        *text = given;
    });
    return text;
}

std::shared_ptr<std::string> add_path(CLI::App& command, const std::string& name,
                                      const std::string& description) {
    auto path = add_name(command, name, description);
    command.get_option(name)->type_name("FILE");
    return path;
}

std::shared_ptr<std::string> add_key_file(CLI::App& command, const std::string& name,
                                          const std::string& extension,
                                          const std::string& description) {
    auto file = std::make_shared<std::string>();
    add_checked(command, name, description, [file, name, extension](const std::string& given) {
        refuse_other_than_utf8(name, given);
        if (!given.empty() && PGM_COMMON::match_extension(given, {extension}) == 0) {
            throw CLI::ValidationError(name,
                                       "file '" + given + "' has not the extension " + extension);
        }
        if (!given.empty() && !FIO_FILE_SYSTEM::exists(given)) {
            throw CLI::ValidationError(name, "file '" + given + "' does not exist");
        }
        *file = given;
    })->type_name("FILE");
    return file;
}

std::shared_ptr<std::uint32_t> add_number(CLI::App& command, const std::string& name,
                                          const std::string& description) {
    auto number = std::make_shared<std::uint32_t>();
    add_checked(command, name, description + ", decimal or with 0x in hexadecimal",
                [number, name](const std::string& text) { *number = number_of(name, text); })
        ->type_name("NUMBER");
    return number;
}

std::shared_ptr<std::vector<unsigned char>> add_file_content(CLI::App& command, CALL& call,
                                                             const std::string& name,
                                                             const std::string& description) {
    auto content = std::make_shared<std::vector<unsigned char>>();
    add_checked(command, name, description + ", - for standard input",
                [content, name, &call](const std::string& file) {
                    *content = content_of(call, name, file);
                })
        ->type_name("FILE");
    return content;
}

std::shared_ptr<std::vector<unsigned char>> add_certificate(CLI::App& command, CALL& call,
                                                            const std::string& name,
                                                            const std::string& description) {
    auto content = std::make_shared<std::vector<unsigned char>>();
    add_checked(command, name, description + ", - for standard input",
                [content, name, &call](const std::string& file) {
                    *content = content_of(call, name, file);
                    constexpr std::size_t word = 8;
                    if (content->empty() || content->size() % word != 0) {
                        throw CLI::ValidationError(
                            name, "file '" + file + "' has " + count_of_bytes(content->size()) +
                                      ", but the size must be a positive multiple of 8");
                    }
                })
        ->type_name("FILE");
    return content;
}

std::shared_ptr<std::map<std::string, std::string>> add_map(CLI::App& command,
                                                            const std::string& name,
                                                            const std::string& description) {
    auto map = std::make_shared<std::map<std::string, std::string>>();
    command
        .add_option_function<std::vector<std::string>>(
            name,
            [map, name](const std::vector<std::string>& entries) {
                for (const std::string& entry : entries) {
                    refuse_other_than_utf8(name, entry);
                    const std::size_t sign = entry.find('=');
                    if (sign == std::string::npos) {
                        throw CLI::ValidationError(name, "'" + entry + "' is not KEY=VALUE");
                    }
                    if (!map->emplace(entry.substr(0, sign), entry.substr(sign + 1)).second) {
                        throw CLI::ValidationError(
                            name, "key '" + entry.substr(0, sign) + "' is given twice");
                    }
                }
            },
            description)
        ->allow_extra_args(false)
        ->type_name("KEY=VALUE");
    return map;
}

std::shared_ptr<std::vector<std::string>> add_further_arguments(CLI::App& command,
                                                                const std::string& description) {
    auto arguments = std::make_shared<std::vector<std::string>>();
    command.add_option_function<std::vector<std::string>>(
        "ARGUMENT",
        [arguments](const std::vector<std::string>& given) {
            for (const std::string& argument : given) {
                refuse_empty("ARGUMENT", argument);
            }
            *arguments = given;
        },
        description);
    return arguments;
}

std::shared_ptr<std::string> add_out(CLI::App& command, CALL& call) {
    auto out = std::make_shared<std::string>();
    add_checked(command, "--out", "Write the bytes to this file, or with - to standard output",
                [out, &call](const std::string& file) {
                    refuse_empty("--out", file);
                    if (file == "-") {
                        call.want_standard_output();
                    }
                    *out = file;
                })
        ->type_name("FILE");
    return out;
}

void require_script_extension(const std::string& name, const std::string& script) {
    if (!script.empty() && PGM_COMMON::match_extension(script, {".py", ".pyc"}) == 0) {
        throw CLI::ValidationError(name, "'" + script + "' has not the extension .py or .pyc");
    }
}

void require_common_script(const std::string& script) {
    const std::string file = PGM_COMMON::pgm_get_common_programmer() + script;
    if (!FIO_FILE_SYSTEM::exists(file)) {
        throw USAGE_ERROR("script " + file +
                          " is not installed; PGM_COMMON_PROGRAMMER_DIR names the common folder");
    }
}
