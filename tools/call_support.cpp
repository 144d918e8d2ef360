#include "tools/call_support.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

#include "pgm/pgm_common/pgm_common.h"
#include "tools/tool_platform.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

// How many bytes of a result are shown.
constexpr std::size_t described_bytes = 16;

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

std::vector<unsigned char> content_of(const std::string& option, const std::string& file) {
    const std::filesystem::path path = std::filesystem::u8path(file);
    std::ifstream stream(path, std::ios::binary);
    if (!stream || std::filesystem::is_directory(path)) {
        throw CLI::ValidationError(option, "file '" + file + "' cannot be read");
    }
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(stream),
                                      std::istreambuf_iterator<char>());
}

TOOL_STATUS cannot_write(const std::string& what) {
    msg_line(MSG_TYPE_ERROR, "the result cannot be written to " + what);
    return TOOL_FAILURE;
}

TOOL_STATUS write_file(const std::string& file, const unsigned char* bytes, std::size_t size) {
    const std::filesystem::path path = std::filesystem::u8path(file);
    std::filesystem::path partial = path;
    partial += ".partial";
    std::ofstream stream(partial, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    stream.close();
    std::error_code error;
    if (stream) {
        std::filesystem::rename(partial, path, error);
    }
    if (!stream || error) {
        std::filesystem::remove(partial, error);
        return cannot_write("file '" + file + "'");
    }
    return TOOL_SUCCESS;
}

}  // namespace

std::shared_ptr<std::string> add_text(CLI::App& command, const std::string& name,
                                      const std::string& description) {
    auto text = std::make_shared<std::string>();
    command.add_option(name, *text, description)->required(!is_option(name));
    return text;
}

std::shared_ptr<std::uint32_t> add_number(CLI::App& command, const std::string& name,
                                          const std::string& description) {
    auto number = std::make_shared<std::uint32_t>();
    command
        .add_option_function<std::string>(
            name, [number, name](const std::string& text) { *number = number_of(name, text); },
            description + ", decimal or with 0x in hexadecimal")
        ->required()
        ->type_name("NUMBER");
    return number;
}

std::shared_ptr<std::vector<unsigned char>> add_file_content(CLI::App& command,
                                                             const std::string& name,
                                                             const std::string& description) {
    auto content = std::make_shared<std::vector<unsigned char>>();
    command
        .add_option_function<std::string>(
            name, [content, name](const std::string& file) { *content = content_of(name, file); },
            description)
        ->required()
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
    command.add_option("ARGUMENT", *arguments, description);
    return arguments;
}

std::shared_ptr<std::string> add_out(CLI::App& command) {
    return add_text(command, "--out", "Write the bytes to this file, or with - to standard output");
}

TOOL_STATUS print_line(const std::string& line, const std::string& out) {
    std::ostream& stream = out == "-" ? std::cerr : std::cout;
    stream << line << std::endl;
    return stream ? TOOL_SUCCESS : cannot_write("standard output");
}

TOOL_STATUS print_text(const std::string& text) {
    return text.empty() ? TOOL_FAILURE : print_line(text);
}

TOOL_STATUS write_bytes(const std::string& out, const unsigned char* bytes, std::size_t size) {
    if (out == "-") {
        tool_platform::make_standard_output_binary();
        std::cout.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
        std::cout.flush();
        return std::cout ? TOOL_SUCCESS : cannot_write("standard output");
    }
    if (!out.empty() && write_file(out, bytes, size) != TOOL_SUCCESS) {
        return TOOL_FAILURE;
    }
    std::string description = std::to_string(size) + (size == 1 ? " byte" : " bytes");
    if (!out.empty()) {
        description += " written to " + out;
    } else if (size > 0) {
        const std::size_t shown = std::min(size, described_bytes);
        description += ": " +
                       PGM_COMMON::convert_byte_array_to_standard_hex_string(
                           bytes, static_cast<unsigned long>(shown), true, false) +
                       (shown < size ? "..." : "");
    }
    return print_line(description);
}
