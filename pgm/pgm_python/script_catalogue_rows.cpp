// The rows by themselves, for programs that list them, too.

#include "pgm/pgm_python/script_catalogue.h"

const std::vector<CATALOGUE_ROW>& script_catalogue() {
    static const std::vector<CATALOGUE_ROW> catalogue = {
        {"tarn_card_sign", "", "py", "0"},
        {"norvane_sign", "", "py", "0"},
        {"pelimor_sign", "", "py", "0"},
        {"norvane_encrypt", "", "py", "0"},
        {"ostrel_encrypt", "", "pyc", "1"},
        {"norvane_writeback_protobuf", "", "py", "1"},
        {"pelimor_firmware_attestation", "", "py", "0"},
        {"itool", "pgm_internal_tool", "pyc", "1"},
        {"norvane_asic_database", "", "py", "1"},
        {"re_sign", "rom_extension_sign", "pyc", "1"},
        {"compact_cert_sign", "", "pyc", "0"},
        {"rim_generator", "", "pyc", "0"},
    };
    return catalogue;
}
