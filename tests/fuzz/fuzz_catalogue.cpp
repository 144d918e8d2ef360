// The script catalogue: any catalogue searched for any name, and names of default scripts resolved
// in an installation that lacks some of them.
//
// Input: a byte (1: reports that may return do so), a byte (the number of rows), the rows (a byte
// with the number of fields, then each field), then the name that is looked for.

#include "pgm/pgm_python/script_catalogue.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/scratch_folder.h"
#include "tests/pgm_python_mgr_test.h"
#include "zel/zel_fio/zel_fio.h"

namespace {

struct DEFAULT_SCRIPT {
    const char* name;
    const char* stem;
    const char* file;
    const char* folder;
    bool installed;
};

constexpr DEFAULT_SCRIPT default_scripts[] = {
    {"tarn_card_sign", "tarn_card_sign", "tarn_card_sign.py", "common", true},
    {"norvane_sign", "norvane_sign", "norvane_sign.py", "common", true},
    {"pelimor_sign", "pelimor_sign", "pelimor_sign.py", "common", false},
    {"norvane_encrypt", "norvane_encrypt", "norvane_encrypt.py", "common", true},
    {"ostrel_encrypt", "ostrel_encrypt", "ostrel_encrypt.pyc", "unshipped", true},
    {"norvane_writeback_protobuf", "norvane_writeback_protobuf", "norvane_writeback_protobuf.py",
     "unshipped", false},
    {"pelimor_firmware_attestation", "pelimor_firmware_attestation",
     "pelimor_firmware_attestation.py", "common", true},
    {"itool", "pgm_internal_tool", "pgm_internal_tool.pyc", "unshipped", true},
    {"norvane_asic_database", "norvane_asic_database", "norvane_asic_database.py", "unshipped",
     true},
    {"re_sign", "rom_extension_sign", "rom_extension_sign.pyc", "unshipped", false},
    {"compact_cert_sign", "compact_cert_sign", "compact_cert_sign.pyc", "common", true},
    {"rim_generator", "rim_generator", "rim_generator.pyc", "common", false},
};

std::string common;
std::string unshipped;

// A field: a byte that names one of the texts here, or else a text of the input's own.
std::string field_of(FUZZ_INPUT& input) {
    static const char* const fields[] = {"",
                                         "py",
                                         "pyc",
                                         "0",
                                         "1",
                                         "2",
                                         "itool",
                                         "stem",
                                         "stem.py",
                                         "stem.pyc",
                                         "py.py",
                                         ".",
                                         "norvane_sign.py"};
    const unsigned choice = input.byte();
    return choice < std::size(fields) ? fields[choice] : input.text();
}

// What a search comes to.
struct OUTCOME {
    FUZZ_RECEIVER::ERRORS errors;
    bool thrown = false;
    std::string path;

    bool operator==(const OUTCOME& other) const {
        return errors == other.errors && thrown == other.thrown && path == other.path;
    }
};

OUTCOME expected_search(const std::vector<CATALOGUE_ROW>& catalogue, const std::string& name,
                        bool returning) {
    OUTCOME outcome;
    const auto report = [&](int line, const char* text, bool may_return) {
        outcome.errors.emplace_back(line, text);
        outcome.thrown = !(may_return && returning);
        return outcome.thrown;
    };
    for (const CATALOGUE_ROW& row : catalogue) {
        if (row.size() != 4) {
            report(192, "db.size() == 4", true);
            return outcome;
        }
        if (row[0].empty()) {
            report(193, "db.at(0).size()", false);
            return outcome;
        }
        if (row[2] != "py" && row[2] != "pyc") {
            report(194, "db.at(2) == \"py\" || db.at(2) == \"pyc\"", false);
            return outcome;
        }
        bool found = false;
        if (row[3] != "0" && row[3] != "1") {
            if (report(195, "db.at(3) == \"0\" || db.at(3) == \"1\"", true)) {
                return outcome;
            }
            found = true;
        }
        const std::string stem = row[1].empty() ? row[0] : row[1];
        const std::string file = up_to_zero(stem) + "." + row[2];
        if (found || name == row[0] || name == stem || name == file) {
            outcome.path = (row[3] == "0" ? common : unshipped) + "/python/" + file;
            return outcome;
        }
    }
    return outcome;
}

OUTCOME search(const std::vector<CATALOGUE_ROW>& catalogue, const std::string& name,
               bool returning) {
    FUZZ_RECEIVER receiver;
    if (returning) {
        receiver.returning_lines = {192, 195};
    }
    OUTCOME outcome;
    try {
        outcome.path = find_in_catalogue(catalogue, name);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
        outcome.thrown = true;
    }
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(receiver.posts.empty());
    outcome.errors = receiver.errors;
    return outcome;
}

std::string expected_default(const std::string& name) {
    if (FIO_FILE_SYSTEM::exists(name)) {
        return name;
    }
    for (const DEFAULT_SCRIPT& script : default_scripts) {
        if (script.installed &&
            (name == script.name || name == script.stem || name == script.file)) {
            const bool is_common = std::string(script.folder) == "common";
            return (is_common ? common : unshipped) + "/python/" + script.file;
        }
    }
    return name;
}

void check_default(const std::string& name) {
    FUZZ_RECEIVER receiver;
    std::string found;
    try {
        found = PGM_PYTHON_MGR_TEST::find_default_script(name);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR&) {
        MUST_HOLD((receiver.errors == FUZZ_RECEIVER::ERRORS{{170, "original_file.size()"}}));
        MUST_HOLD(name.empty());
        return;
    }
    MUST_HOLD(!name.empty());
    MUST_HOLD(receiver.errors.empty());
    MUST_HOLD(found == expected_default(name));
    MUST_HOLD(found == name || FIO_FILE_SYSTEM::exists(found));
    // What has been resolved stays what it is.
    MUST_HOLD(PGM_PYTHON_MGR_TEST::find_default_script(found) == found);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    static const SCRATCH_FOLDER folder;
    for (const DEFAULT_SCRIPT& script : default_scripts) {
        if (script.installed) {
            folder.write(std::string(script.folder) + "/python/" + script.file);
        }
    }
    folder.write("here/norvane_encrypt");  // stands before the default script
    common = folder.path() + "/common";
    unshipped = folder.path() + "/unshipped";
    ::setenv("PGM_COMMON_PROGRAMMER_DIR", common.c_str(), 1);
    ::setenv("PGM_UNSHIPPED_PROGRAMMER_DIR", unshipped.c_str(), 1);
    std::filesystem::current_path(folder.path() + "/here");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    const bool returning = (input.byte() & 1) != 0;
    std::vector<CATALOGUE_ROW> catalogue(input.below(16));
    for (CATALOGUE_ROW& row : catalogue) {
        row.resize(input.below(6));
        for (std::string& field : row) {
            field = field_of(input);
        }
    }
    const std::string name = input.rest();
    MUST_HOLD(search(catalogue, name, returning) == expected_search(catalogue, name, returning));
    // Names that the catalogue itself holds.
    for (const CATALOGUE_ROW& row : catalogue) {
        for (const std::string& field : row) {
            MUST_HOLD(search(catalogue, field, returning) ==
                      expected_search(catalogue, field, returning));
        }
    }
    MUST_HOLD(!search(script_catalogue(), name, false).thrown);
    check_default(name);
    return 0;
}
