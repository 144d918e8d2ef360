#include "pgm/pgm_python/script_catalogue.h"

#include <gtest/gtest.h>

#include <iterator>

#include "tests/pgm_python_mgr_test.h"
#include "tests/support.h"

namespace {

std::string find(const std::string& name) {
    return PGM_PYTHON_MGR_TEST::find_default_script(name);
}

// Makes a folder the current one until the end of the scope.
class CURRENT_FOLDER {
public:
    explicit CURRENT_FOLDER(const std::string& folder) : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(std::filesystem::u8path(folder));
    }
    ~CURRENT_FOLDER() { std::filesystem::current_path(m_before); }

private:
    std::filesystem::path m_before;
};

struct DEFAULT_SCRIPT {
    const char* name;
    const char* stem;
    const char* file;
    bool unshipped;
};

const DEFAULT_SCRIPT default_scripts[] = {
    {"tarn_card_sign", "tarn_card_sign", "tarn_card_sign.py", false},
    {"norvane_sign", "norvane_sign", "norvane_sign.py", false},
    {"pelimor_sign", "pelimor_sign", "pelimor_sign.py", false},
    {"norvane_encrypt", "norvane_encrypt", "norvane_encrypt.py", false},
    {"ostrel_encrypt", "ostrel_encrypt", "ostrel_encrypt.pyc", true},
    {"norvane_writeback_protobuf", "norvane_writeback_protobuf", "norvane_writeback_protobuf.py",
     true},
    {"pelimor_firmware_attestation", "pelimor_firmware_attestation",
     "pelimor_firmware_attestation.py", false},
    {"itool", "pgm_internal_tool", "pgm_internal_tool.pyc", true},
    {"norvane_asic_database", "norvane_asic_database", "norvane_asic_database.py", true},
    {"re_sign", "rom_extension_sign", "rom_extension_sign.pyc", true},
    {"compact_cert_sign", "compact_cert_sign", "compact_cert_sign.pyc", false},
    {"rim_generator", "rim_generator", "rim_generator.pyc", false},
};

TEST(ScriptCatalogue, EveryDefaultScriptIsFoundByNameStemAndFileName) {
    const TEST_INSTALLATION installation;
    EXPECT_EQ(script_catalogue().size(), std::size(default_scripts));
    for (const DEFAULT_SCRIPT& script : default_scripts) {
        const std::string folder = script.unshipped ? "unshipped" : "common";
        const std::string path =
            installation.folder().write(folder + "/programmer/python/" + script.file, "");
        EXPECT_EQ(find(script.name), path);
        EXPECT_EQ(find(script.stem), path);
        EXPECT_EQ(find(script.file), path);
    }
}

TEST(ScriptCatalogue, TheRowsStandInTheirOrder) {
    std::size_t index = 0;
    for (const DEFAULT_SCRIPT& script : default_scripts) {
        EXPECT_EQ(script_catalogue().at(index).at(0), script.name);
        ++index;
    }
}

TEST(ScriptCatalogue, AnExistingFileWinsOverTheCatalogue) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/norvane_sign.py", "");
    const CURRENT_FOLDER current(installation.folder().path());
    installation.folder().write("norvane_sign", "");
    EXPECT_EQ(find("norvane_sign"), "norvane_sign");
}

TEST(ScriptCatalogue, AFolderOfTheNameDoesNotHideTheDefaultScript) {
    const TEST_INSTALLATION installation;
    const std::string path = installation.common_script("python/norvane_sign.py", "");
    const CURRENT_FOLDER current(installation.folder().path());
    installation.folder().make_folder("norvane_sign");
    EXPECT_EQ(find("norvane_sign"), path);
}

TEST(ScriptCatalogue, AnotherExtensionThanTheRowsSelectsNothing) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/norvane_sign.py", "");
    installation.unshipped_script("python/pgm_internal_tool.py", "");
    installation.folder().write("unshipped/programmer/python/pgm_internal_tool.pyc", "");
    EXPECT_EQ(find("norvane_sign.pyc"), "norvane_sign.pyc");
    EXPECT_EQ(find("pgm_internal_tool.py"), "pgm_internal_tool.py");
    EXPECT_EQ(find("itool.pyc"), "itool.pyc");
}

TEST(ScriptCatalogue, ADifferentCaseComesBackUnchanged) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/norvane_sign.py", "");
    EXPECT_EQ(find("Norvane_sign"), "Norvane_sign");
}

TEST(ScriptCatalogue, AScriptThatIsNotInstalledComesBackUnchangedWithoutAMessage) {
    const TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(find("norvane_sign"), "norvane_sign");
    EXPECT_EQ(find("unknown"), "unknown");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST(ScriptCatalogue, ACommonScriptIsNotLookedForInTheUnshippedFolder) {
    const TEST_INSTALLATION installation;
    installation.unshipped_script("python/norvane_sign.py", "");
    EXPECT_EQ(find("norvane_sign"), "norvane_sign");
}

TEST(ScriptCatalogue, AnEmptyNameIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] { find(""); }), internal_error("original_file.size()", 170));
}

TEST(ScriptCatalogue, ARowWithAnotherNumberOfFieldsEndsTheSearchWithoutAMatch) {
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    EXPECT_EQ(find_in_catalogue({{"a", "", "py"}, {"b", "", "py", "0"}}, "b"), "");
    EXPECT_EQ(receiver.reports, std::vector<std::string>{internal_error("db.size() == 4", 192)});
    receiver.returns_from_internal_errors = false;
    EXPECT_EQ(thrown_by([] { find_in_catalogue({{}}, "b"); }),
              internal_error("db.size() == 4", 192));
}

TEST(ScriptCatalogue, ARowWithoutANameIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] {
                  find_in_catalogue({{"", "", "py", "0"}}, "b");
              }),
              internal_error("db.at(0).size()", 193));
}

TEST(ScriptCatalogue, ARowWithAnotherExtensionIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] {
                  find_in_catalogue({{"a", "", "txt", "0"}}, "b");
              }),
              internal_error("db.at(2) == \"py\" || db.at(2) == \"pyc\"", 194));
}

TEST(ScriptCatalogue, ARowWithAnotherFolderIsTakenAsTheMatchAfterItsReport) {
    const TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    EXPECT_EQ(find_in_catalogue({{"a", "", "py", "2"}, {"b", "", "py", "0"}}, "b"),
              installation.unshipped() + "/python/a.py");
    EXPECT_EQ(receiver.reports, std::vector<std::string>{
                                    internal_error("db.at(3) == \"0\" || db.at(3) == \"1\"", 195)});
    receiver.returns_from_internal_errors = false;
    EXPECT_EQ(thrown_by([] {
                  find_in_catalogue({{"a", "", "py", "2"}}, "b");
              }),
              internal_error("db.at(3) == \"0\" || db.at(3) == \"1\"", 195));
}

TEST(ScriptCatalogue, RowsAfterTheMatchAreNotLookedAt) {
    const TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(find_in_catalogue({{"a", "", "py", "0"}, {"broken"}}, "a"),
              installation.common() + "/python/a.py");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST(ScriptCatalogueDeathTest, WithoutAReceiverAnEmptyNameAborts) {
    EXPECT_DEATH(find(""),
                 "internal error: original_file.size\\(\\) \\[PGM_PYTHON, "
                 "pgm/pgm_python/pgm_python_mgr, line 170\\]\n");
}

}  // namespace
