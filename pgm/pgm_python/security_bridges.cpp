// The bridges that hand certificates, keys and bitstreams to scripts.

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

constexpr BRIDGE generate_compact_cert_bridge = BRIDGE(1130).with_late_back_channel();
constexpr BRIDGE sign_compact_ccert_bridge = BRIDGE(1265).with_early_back_channel();
constexpr BRIDGE verify_fixed_script_bridge = BRIDGE(1199).with_late_back_channel();
constexpr BRIDGE verify_named_script_bridge = BRIDGE(1324).with_early_back_channel();
constexpr BRIDGE get_zek_root_key_bridge = BRIDGE(886).with_early_back_channel();
constexpr BRIDGE modify_bitstream_bridge = BRIDGE(609).with_early_back_channel();

constexpr char zky_check[] =
    "zky.empty() || (PGM_COMMON::match_extension(zky.c_str(), { \".zky\" }) && "
    "FIO_FILE_SYSTEM::exists(zky.c_str()))";
constexpr char pem_check[] =
    "pem.empty() || (PGM_COMMON::match_extension(pem.c_str(), { \".pem\" }) && "
    "FIO_FILE_SYSTEM::exists(pem.c_str()))";

// A certificate is a whole number of 8-byte words.
bool is_certificate(const unsigned char* content, unsigned long size) {
    return content != nullptr && size > 0 && size % 8 == 0;
}

// A key file is not given, or exists and has the extension of its kind.
bool is_key_file(const std::string& file, const char* extension) {
    // Up to the first zero byte, as the script gets it.
    const std::string name = file.substr(0, file.find('\0'));
    return file.empty() ||
           (PGM_COMMON::match_extension(name, {extension}) != 0 && FIO_FILE_SYSTEM::exists(name));
}

// Runs a call that is to answer bytes: a buffer for the caller, null when it is empty, and its
// size, which a failed call leaves as it is.
unsigned char* returned_bytes(BRIDGE_CALL& call, unsigned long& size) {
    ANSWER answer = call.run(ANSWER_FORM::KIND::bytes);
    if (answer.success) {
        size = static_cast<unsigned long>(answer.bytes.size());
    }
    return answer.bytes.release_unless_empty();
}

constexpr std::size_t root_key_size = 32;

// True, when the bytearray has been filled in.
constexpr ANSWER_FORM root_key_answer = {ANSWER_FORM::KIND::filled_in,
                                         {"PyBool_Check(pResult)", 904},
                                         {"pResult == Py_True", 905},
                                         {},
                                         0};

// A key on the free store, overwritten before it is released.
struct KEY_RELEASE {
    void operator()(unsigned char* key) const {
        MEM_DETAIL::overwrite(key, root_key_size);
        delete[] key;
    }
};

}  // namespace

unsigned char* PGM_PYTHON_MGR::generate_compact_cert(
    unsigned long& out_size, unsigned long first_number, unsigned long second_number,
    unsigned char* content, unsigned long content_size, std::string zky, std::string pem) {
    content_size = low_32_bits(content_size);
    require(is_certificate(content, content_size),
            {"content != NULL && content_size > 0 && (content_size % 8) == 0", 1117});
    require(is_key_file(zky, ".zky"), {zky_check, 1118});
    require(is_key_file(pem, ".pem"), {pem_check, 1119});
    out_size = 0;
    BRIDGE_CALL call(generate_compact_cert_bridge, common_script("%s/python/compact_cert_sign.pyc"),
                     "external_sign_function");
    call.expect_tuple({"pArgs != NULL", 1138});
    call.add_argument(number_argument(first_number), {"pArg0 != NULL", 1140},
                      {"PyTuple_SetItem(pArgs, 0, pArg0) == 0", 1150});
    call.add_argument(number_argument(second_number), {"pArg1 != NULL", 1142},
                      {"PyTuple_SetItem(pArgs, 1, pArg1) == 0", 1151});
    call.add_argument(hex_argument(content, content_size), {"pArg2 != NULL", 1144},
                      {"PyTuple_SetItem(pArgs, 2, pArg2) == 0", 1152});
    call.add_argument(text_argument(zky), {"pArg3 != NULL", 1146},
                      {"PyTuple_SetItem(pArgs, 3, pArg3) == 0", 1153});
    call.add_argument(text_argument(pem), {"pArg4 != NULL", 1148},
                      {"PyTuple_SetItem(pArgs, 4, pArg4) == 0", 1154});
    return returned_bytes(call, out_size);
}

unsigned char* PGM_PYTHON_MGR::sign_compact_ccert(unsigned long& out_size,
                                                  unsigned char* unsign_content,
                                                  unsigned long unsign_content_size,
                                                  std::string zky, std::string pem) {
    unsign_content_size = low_32_bits(unsign_content_size);
    require(is_certificate(unsign_content, unsign_content_size),
            {"unsign_content != nullptr && unsign_content_size > 0 && "
             "(unsign_content_size % 8) == 0",
             1242});
    require(is_key_file(zky, ".zky"), {zky_check, 1243});
    require(is_key_file(pem, ".pem"), {pem_check, 1244});
    out_size = 0;
    // From source, where the other fixed scripts are compiled.
    BRIDGE_CALL call(sign_compact_ccert_bridge, common_script("%s/python/norvane_sign.py"),
                     "external_ccert_sign_function");
    call.set_script_arguments({"--zky=" + zky, "--pem=" + pem});
    call.expect_tuple({"pArgs != nullptr", 1269});
    call.add_argument(hex_argument(unsign_content, unsign_content_size), {"pArg0 != nullptr", 1271},
                      {"PyTuple_SetItem(pArgs, 0, pArg0) == 0", 1272});
    return returned_bytes(call, out_size);
}

bool PGM_PYTHON_MGR::verify_compact_cert_keychain(unsigned char* content,
                                                  unsigned long content_size) {
    content_size = low_32_bits(content_size);
    require(is_certificate(content, content_size),
            {"content != nullptr && content_size > 0 && (content_size % 8) == 0", 1190});
    BRIDGE_CALL call(verify_fixed_script_bridge, common_script("%s/python/compact_cert_sign.pyc"),
                     "external_verify_function");
    call.expect_tuple({"pArgs != NULL", 1207});
    call.add_argument(hex_argument(content, content_size), {"pArg != NULL", 1209},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 1210});
    return call.run(ANSWER_FORM::KIND::ignored).success;
}

bool PGM_PYTHON_MGR::verify_compact_cert_keychain(std::string script, unsigned char* content,
                                                  unsigned long content_size) {
    content_size = low_32_bits(content_size);
    require(!script.empty(), {"!script.empty()", 1309});
    require(is_certificate(content, content_size),
            {"content != nullptr && content_size > 0 && (content_size % 8) == 0", 1310});
    BRIDGE_CALL call(
        verify_named_script_bridge,
        MEM_DETAIL::stl_raw_sprintf("%s/python/%s", PGM_COMMON::pgm_get_common_programmer().c_str(),
                                    script.c_str()),
        "external_verify_ccert_function");
    call.expect_tuple({"pArgs != nullptr", 1328});
    call.add_argument(hex_argument(content, content_size), {"pArg != nullptr", 1330},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 1331});
    return call.run(ANSWER_FORM::KIND::ignored).success;
}

unsigned char* PGM_PYTHON_MGR::get_zek_root_key(std::string zek_file, unsigned long& size,
                                                std::string text_argument) {
    require(!zek_file.empty(), {"No ZEK file is specified", 869});
    std::unique_ptr<unsigned char[], KEY_RELEASE> key(new unsigned char[root_key_size]());
    size = 0;
    BRIDGE_CALL call(get_zek_root_key_bridge,
                     common_script("%s/python/pgm_python_common_function.pyc"), "get_zek_root_key");
    call.expect_tuple({"pArgs != nullptr", 890});
    call.add_argument(::text_argument(zek_file), {"pArg0 != nullptr", 892},
                      {"PyTuple_SetItem(pArgs, 0, pArg0) == 0", 897});
    call.add_argument(::text_argument(text_argument), {"pArg1 != nullptr", 894},
                      {"PyTuple_SetItem(pArgs, 1, pArg1) == 0", 898});
    call.add_argument(filled_in_argument(root_key_size), {"pArg2 != nullptr", 896},
                      {"PyTuple_SetItem(pArgs, 2, pArg2) == 0", 899});
    const ANSWER answer = call.run(root_key_answer);
    if (answer.success) {
        std::memcpy(key.get(), answer.bytes.data(), std::min(answer.bytes.size(), root_key_size));
        size = root_key_size;
    } else if (answer.made) {
        // A script that could not be loaded leaves the caller a key of zeros and size 0.
        key.reset();
    }
    return key.release();
}

unsigned char* PGM_PYTHON_MGR::modify_bitstream(const unsigned char* data, unsigned long size,
                                                unsigned long& out_size, std::string python_file,
                                                std::string function_name,
                                                std::vector<std::string> script_args) {
    require(!python_file.empty(), {"Python file must be specified", 600});
    BRIDGE_CALL call(modify_bitstream_bridge, find_default_script(std::move(python_file)),
                     std::move(function_name));
    call.set_script_arguments(std::move(script_args));
    call.expect_tuple({"pArgs != nullptr", 613});
    call.add_argument(bytes_argument(data, low_32_bits(size)), {"pArg != nullptr", 615},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 616});
    return returned_bytes(call, out_size);
}
