// Paths: made absolute, taken apart, looked for.
//
// Input: a base as text, then a path. The current folder holds "file" and "folder/inner".

#include <algorithm>

#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/scratch_folder.h"
#include "zel/zel_fio/zel_fio.h"

namespace {

std::string current_folder;

// What a path is when its components that mean nothing are left out.
std::string tidied(const std::string& path) {
    std::vector<std::string> components(1);
    for (const char letter : path) {
        if (letter == '/') {
            components.emplace_back();
        } else {
            components.back() += letter;
        }
    }
    const bool absolute = !path.empty() && path.front() == '/';
    std::string result;
    for (const std::string& component : components) {
        if (component.empty() || component == ".") {
            continue;
        }
        result += (absolute || !result.empty() ? "/" : "") + component;
    }
    return absolute && result.empty() ? "/" : result;
}

std::string made_absolute(const std::string& path, const std::string& base) {
    FIO_PATH made(path);
    made.become_absolute(base);
    return made.fullpath();
}

bool is_there(const std::string& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(up_to_zero(path), error);
    return up_to_zero(path) == path && std::filesystem::exists(status) &&
           !std::filesystem::is_directory(status);
}

// The parts of a path as it is given.
void check_parts(const std::string& path) {
    const FIO_PATH parts(path);
    const std::string name = parts.filename();
    const std::string folder = parts.full_directory();
    MUST_HOLD(parts.fullpath() == path);
    MUST_HOLD(name.find('/') == std::string::npos);
    MUST_HOLD(!folder.empty());
    MUST_HOLD(folder == "/" || folder.back() != '/');
    if (path.find('/') == std::string::npos) {
        MUST_HOLD(folder == "." && name == path);
        return;
    }
    // Both together are the path, save for separators between them.
    const std::string before = path.substr(0, path.size() - name.size());
    MUST_HOLD(before + name == path);
    MUST_HOLD(before.back() == '/');
    MUST_HOLD(before.compare(0, folder.size(), folder) == 0);
    MUST_HOLD(std::all_of(before.begin() + static_cast<std::ptrdiff_t>(folder.size()), before.end(),
                          [](char letter) { return letter == '/'; }));
}

void check_absolute(const std::string& path, const std::string& base) {
    const std::string& start = base.empty() ? current_folder : base;
    const bool given_absolute = !path.empty() && path.front() == '/';
    const std::string whole = made_absolute(path, base);
    MUST_HOLD(whole == tidied(given_absolute ? path : start + "/" + path));
    if (start.front() != '/' && !given_absolute) {
        return;
    }
    MUST_HOLD(whole.front() == '/');
    MUST_HOLD(made_absolute(whole, "") == whole);
    MUST_HOLD(made_absolute(whole, "/other") == whole);
    const FIO_PATH made(whole);
    if (whole == "/") {
        MUST_HOLD(made.full_directory() == "/" && made.filename().empty());
        return;
    }
    const std::string folder = made.full_directory();
    MUST_HOLD(!made.filename().empty());
    MUST_HOLD((folder == "/" ? folder : folder + "/") + made.filename() == whole);
    MUST_HOLD(made_absolute(folder, "") == folder);
    // The same parts from the folder's point of view.
    MUST_HOLD(made_absolute(made.filename(), folder) == whole);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    static const SCRATCH_FOLDER folder;
    folder.write("file");
    folder.write("folder/inner");
    current_folder = folder.path();
    std::filesystem::current_path(current_folder);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t no_system_limit = 1000;
    FUZZ_INPUT input(data, size);
    const std::string base = input.text();
    const std::string path = input.rest();
    check_parts(path);
    check_absolute(path, base);
    check_absolute(path, "");
    const bool there = FIO_FILE_SYSTEM::exists(path);
    MUST_HOLD(there == is_there(path));
    MUST_HOLD(FIO_FILE_SYSTEM::exists(path.c_str()) == is_there(up_to_zero(path)));
    if (path.size() < no_system_limit && there) {
        MUST_HOLD(FIO_FILE_SYSTEM::exists(made_absolute(path, "")));
    }
    return 0;
}
