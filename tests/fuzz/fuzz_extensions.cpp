// Extensions of script names.
//
// Input: a byte (the number of listed extensions), the extensions as texts, then a file name.

#include "pgm/pgm_common/pgm_common.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// Read backwards: what comes before a separator has no dot that counts.
std::string extension_of(const std::string& file) {
    std::string extension;
    for (std::size_t at = file.size(); at > 0; --at) {
        const char letter = file[at - 1];
        if (letter == '/') {
            break;
        }
        extension.insert(extension.begin(), letter);
        if (letter == '.') {
            return extension;
        }
    }
    return std::string();
}

std::string with_large_letters(std::string text) {
    static const char small[] = "abcdefghijklmnopqrstuvwxyz";
    static const char large[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (char& letter : text) {
        for (int index = 0; index < 26; ++index) {
            if (letter == small[index]) {
                letter = large[index];
            }
        }
    }
    return text;
}

int place_of(const std::string& extension, const std::vector<std::string>& extensions) {
    for (std::size_t index = 0; index < extensions.size() && !extension.empty(); ++index) {
        if (with_large_letters(extensions[index]) == with_large_letters(extension)) {
            return static_cast<int>(index) + 1;
        }
    }
    return 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    std::vector<std::string> extensions(input.below(6));
    for (std::string& extension : extensions) {
        extension = input.text();
    }
    const std::string file = input.rest();
    const std::string extension = extension_of(file);
    MUST_HOLD(PGM_COMMON::get_extension(file) == extension);
    const std::vector<std::string> scripts = {".py", ".pyc"};
    for (const std::vector<std::string>& list : {extensions, scripts}) {
        const int place = PGM_COMMON::match_extension(file, list);
        MUST_HOLD(place == place_of(extension, list));
        MUST_HOLD(PGM_COMMON::match_extension(with_large_letters(file), list) == place);
        MUST_HOLD(PGM_COMMON::match_extension("folder.py/" + file, list) == place);
    }
    // A name gets the extension that is put to its end.
    MUST_HOLD(PGM_COMMON::match_extension(file + ".pY", scripts) == 1);
    MUST_HOLD(PGM_COMMON::match_extension(file + ".PYC", scripts) == 2);
    MUST_HOLD(PGM_COMMON::match_extension(file + ".pyc/", scripts) == 0);
    return 0;
}
