#include "pgm/pgm_common/pgm_common.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "pgm/pgm_common/environment.h"
#include "pgm/pgm_common/hex_text.h"
#include "pgm/pgm_common/pgm_common_folders.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

std::string without_end_separators(std::string folder) {
    while (folder.size() > 1 && folder.back() == '/') {
        folder.pop_back();
    }
    return folder;
}

// The folders that the host has chosen; each empty where it has chosen none.
struct CHOSEN_FOLDERS {
    std::mutex guard;
    std::string common;
    std::string unshipped;
    std::string bin;
};

CHOSEN_FOLDERS& chosen_folders() {
    static CHOSEN_FOLDERS folders;
    return folders;
}

// The folder that the host has chosen, else the one that the environment names; empty without
// either.
std::string named_folder(std::string CHOSEN_FOLDERS::*which, const char* variable) {
    std::string named;
    {
        CHOSEN_FOLDERS& chosen = chosen_folders();
        const std::lock_guard<std::mutex> guard(chosen.guard);
        named = chosen.*which;
    }
    if (named.empty()) {
        named = environment_value(variable);
    }
    return named.empty() ? named : without_end_separators(FIO_PATH(named).fullpath());
}

bool is_folder(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::is_directory(std::filesystem::u8path(path), ignored);
}

// The folder of scripts at `place`, found from the program's. The build tree and the zip have it
// beside the program's folder, packages where the file-system standard wants it.
std::string script_folder(const char* place) {
    const std::string above =
        without_end_separators(FIO_PATH(FIO_FILE_SYSTEM::program_directory()).full_directory());
    std::string beside = above + place;
    if (!is_folder(beside)) {
        std::string shared = above + "/share/pgm_python" + place;
        if (is_folder(shared)) {
            return shared;
        }
    }
    return beside;
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool same_letters(const std::string& one, const std::string& other) {
    if (one.size() != other.size()) {
        return false;
    }
    for (std::size_t index = 0; index < one.size(); ++index) {
        if (lower(one[index]) != lower(other[index])) {
            return false;
        }
    }
    return true;
}

}  // namespace

void PGM_COMMON_FOLDERS::set(const std::string& common, const std::string& unshipped,
                             const std::string& bin) {
    // Copied first, so that nothing is changed when memory runs out.
    std::string new_common = common;
    std::string new_unshipped = unshipped;
    std::string new_bin = bin;
    CHOSEN_FOLDERS& chosen = chosen_folders();
    const std::lock_guard<std::mutex> guard(chosen.guard);
    chosen.common.swap(new_common);
    chosen.unshipped.swap(new_unshipped);
    chosen.bin.swap(new_bin);
}

std::string PGM_COMMON::pgm_get_common_programmer() {
    const std::string named = named_folder(&CHOSEN_FOLDERS::common, "PGM_COMMON_PROGRAMMER_DIR");
    return named.empty() ? script_folder("/common/programmer") : named;
}

std::string PGM_COMMON::pgm_get_unshipped_programmer(bool /*internal*/) {
    const std::string named =
        named_folder(&CHOSEN_FOLDERS::unshipped, "PGM_UNSHIPPED_PROGRAMMER_DIR");
    return named.empty() ? script_folder("/unshipped/programmer") : named;
}

std::string PGM_COMMON::pgm_get_bin_directory() {
    const std::string named = named_folder(&CHOSEN_FOLDERS::bin, "PGM_BIN_DIR");
    return named.empty() ? FIO_FILE_SYSTEM::program_directory() : named;
}

std::string PGM_COMMON::get_extension(const std::string& file) {
    const std::string name = FIO_PATH(file).filename();
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(dot);
}

int PGM_COMMON::match_extension(const std::string& file,
                                const std::vector<std::string>& extensions) {
    const std::string extension = get_extension(file);
    if (extension.empty()) {
        return 0;
    }
    int place = 1;
    for (const std::string& listed : extensions) {
        if (same_letters(extension, listed)) {
            return place;
        }
        ++place;
    }
    return 0;
}

std::string PGM_COMMON::convert_byte_array_to_standard_hex_string(unsigned char* bytes,
                                                                  unsigned long size,
                                                                  bool /*upper_case*/,
                                                                  bool /*prefixed*/) {
    // By way of a block that stays in the processor's cache, so that the text is written once.
    std::array<char, 2048> block;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    std::string text;
    text.reserve(static_cast<std::size_t>(size) * 2);
    for (std::size_t at = 0; at < size; at += block.size() / 2) {
        const std::size_t count = std::min<std::size_t>(block.size() / 2, size - at);
        write_hex_digits(bytes + at, count, block.data());
        text.append(block.data(), 2 * count);
    }
    return text;
}

std::vector<std::string> PGM_COMMON::split_string(const std::string& text,
                                                  const std::string& delimiter, bool drop_empty,
                                                  bool /*trim*/, unsigned long most,
                                                  const std::vector<std::string>& /*quotes*/,
                                                  const std::string& /*escape*/,
                                                  bool /*keep_text*/) {
    std::vector<std::string> pieces;
    const auto add = [&pieces, drop_empty](std::string piece) {
        if (!drop_empty || !piece.empty()) {
            pieces.push_back(std::move(piece));
        }
    };
    std::size_t at = 0;
    while (!delimiter.empty() && pieces.size() < most) {
        const std::size_t end = text.find(delimiter, at);
        if (end == std::string::npos) {
            break;
        }
        add(text.substr(at, end - at));
        at = end + delimiter.size();
    }
    add(text.substr(at));
    return pieces;
}

void PGM_COMMON_MSG::print_msg(int type, int /*flags*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text;
    try {
        text = MEM_DETAIL::stl_raw_vsprintf(format, arguments);
    } catch (...) {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
    msg_line(type, text);
}
