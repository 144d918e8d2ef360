// The bridges that extract data, make manifests, ask databases and fetch files.

#include <algorithm>
#include <array>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

constexpr BRIDGE get_nwfmt_data_bridge = BRIDGE(1400)
                                             .with_late_back_channel()
                                             .without_script_check()
                                             .without_argument_vector()
                                             .without_suite_folders()
                                             .building_arguments_first()
                                             .placing_arguments_one_by_one()
                                             .printing_call_failure("Fail to call nwfmt function")
                                             .keeping_result_until_completed();
constexpr BRIDGE generate_rim_bridge = BRIDGE(1534).with_early_back_channel();
constexpr BRIDGE execute_mysql_bridge = BRIDGE(1602)
                                            .without_script_check()
                                            .checking_module_name_as("mysql_file.size()")
                                            .without_suite_folders()
                                            .printing_lookup_failure("Fail to find mysql function")
                                            .printing_call_failure("Fail to call mysql function");
constexpr BRIDGE sync_p4file_bridge = BRIDGE(951).with_late_back_channel();

// The functions of the network-format scripts.
constexpr std::array<const char*, 2> chunk_functions = {"get_bram_chunks", "get_xcvr_chunks"};
constexpr std::array<const char*, 2> hash_functions = {"get_bram_hash_and_size",
                                                       "get_xcvr_hash_and_size"};

bool is_one_of(const std::array<const char*, 2>& functions, const std::string& function) {
    return std::find(functions.begin(), functions.end(), function) != functions.end();
}

// A list of bytearrays; anything but a list holds no chunks.
constexpr ANSWER_FORM chunks_answer = {
    ANSWER_FORM::KIND::chunks, {"pObj != nullptr", 1433}, {}, {}, 0};

// A list of a bytearray, the hash, and an int, the size.
constexpr ANSWER_FORM hash_and_size_answer = {
    ANSWER_FORM::KIND::items,
    {"list_size == 2", 1443},
    {},
    {{{ANSWER_FORM::KIND::bytes, {"pObj != nullptr", 1447}, true},
      {ANSWER_FORM::KIND::number, {"pObj != nullptr", 1454}, false},
      {}}},
    2};

}  // namespace

std::vector<unsigned char> PGM_PYTHON_MGR::get_nwfmt_data(
    const std::string& python_file, const std::string& python_function, const std::string& text_1,
    const std::map<std::string, std::string>& dict_1,
    const std::map<std::string, std::string>& dict_2, const std::string& text_2,
    const std::map<std::string, std::string>& dict_3,
    const std::map<std::string, std::string>& dict_4, unsigned long& size_out) {
    require(!python_file.empty(), {"Python file must be specified", 1387});
    // No separator between the folder and "nwfmt".
    const std::string filename = MEM_DETAIL::stl_raw_sprintf(
        "%snwfmt/%s", PGM_COMMON::pgm_get_common_programmer().c_str(), python_file.c_str());
    if (!FIO_FILE_SYSTEM::exists(filename)) {
        fail(1390, "Python script %s doest not exist", filename);
    }
    require(!python_function.empty(), {"Python function must be specified", 1391});
    const bool gives_chunks = is_one_of(chunk_functions, python_function);
    if (!gives_chunks && !is_one_of(hash_functions, python_function)) {
        fail(1394, "Function %s is not supported", python_function);
    }
    BRIDGE_CALL call(get_nwfmt_data_bridge, filename, python_function);
    call.expect_tuple({"pArgs != nullptr", 444});
    call.add_argument(text_argument(text_1), {"pArg != nullptr", 449},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 450});
    call.add_argument(map_argument(dict_1), {"pArg != nullptr", 460},
                      {"PyTuple_SetItem(pArgs, 1, pArg) == 0", 461});
    call.add_argument(map_argument(dict_2), {"pArg != nullptr", 471},
                      {"PyTuple_SetItem(pArgs, 2, pArg) == 0", 472});
    call.add_argument(text_argument(text_2), {"pArg != nullptr", 476},
                      {"PyTuple_SetItem(pArgs, 3, pArg) == 0", 477});
    call.add_argument(map_argument(dict_3), {"pArg != nullptr", 487},
                      {"PyTuple_SetItem(pArgs, 4, pArg) == 0", 488});
    call.add_argument(map_argument(dict_4), {"pArg != nullptr", 498},
                      {"PyTuple_SetItem(pArgs, 5, pArg) == 0", 499});
    if (gives_chunks) {
        return call.run(chunks_answer).chunks;
    }
    const ANSWER answer = call.run(hash_and_size_answer);
    if (!answer.success) {
        return {};
    }
    size_out = answer.numbers.at(0);
    const unsigned char* const hash = answer.bytes.data();
    return std::vector<unsigned char>(hash, hash + answer.bytes.size());
}

bool PGM_PYTHON_MGR::generate_rim(std::string rbf_file, std::string family,
                                  unsigned long rim_number, std::string output_file) {
    require(!rbf_file.empty(), {"!rbf_file.empty()", 1517});
    require(!family.empty(), {"!family.empty()", 1518});
    require(!output_file.empty(), {"!output_file.empty()", 1519});
    BRIDGE_CALL call(generate_rim_bridge, common_script("%s/python/rim_generator.pyc"),
                     "external_make_rim_function");
    call.expect_tuple({"pArgs != nullptr", 1538});
    call.add_argument(text_argument(rbf_file), {"pArg0 != nullptr", 1540},
                      {"PyTuple_SetItem(pArgs, 0, pArg0) == 0", 1548});
    call.add_argument(text_argument(family), {"pArg1 != nullptr", 1542},
                      {"PyTuple_SetItem(pArgs, 1, pArg1) == 0", 1549});
    call.add_argument(number_argument(rim_number), {"pArg2 != nullptr", 1544},
                      {"PyTuple_SetItem(pArgs, 2, pArg2) == 0", 1550});
    call.add_argument(text_argument(output_file), {"pArg3 != nullptr", 1546},
                      {"PyTuple_SetItem(pArgs, 3, pArg3) == 0", 1551});
    return call.run(ANSWER_FORM::KIND::ignored).success;
}

std::string PGM_PYTHON_MGR::execute_mysql(std::vector<std::string> arguments, bool& found) {
    found = false;
    const std::string mysql_file = MEM_DETAIL::stl_raw_sprintf(
        "%s/mysql/mysql.pyc", PGM_COMMON::pgm_get_unshipped_programmer(true).c_str());
    if (!FIO_FILE_SYSTEM::exists(mysql_file.c_str())) {
        return "";
    }
    found = true;
    BRIDGE_CALL call(execute_mysql_bridge, mysql_file, "mysql");
    call.set_script_arguments(std::move(arguments));
    return call.run(ANSWER_FORM::KIND::text_or_bytes).text;
}

std::string PGM_PYTHON_MGR::sync_p4file(std::string folder, std::string p4source) {
    require(!folder.empty(), {"folder must be specified", 941});
    require(!p4source.empty(), {"p4source must be specified", 942});
    BRIDGE_CALL call(sync_p4file_bridge, common_script("%s/python/pgm_python_common_function.pyc"),
                     "sync_p4file");
    call.expect_tuple({"pArgs != NULL", 959});
    call.add_argument(text_argument(folder), {"pArg0 != NULL", 961},
                      {"PyTuple_SetItem(pArgs, 0, pArg0) == 0", 964});
    call.add_argument(text_argument(p4source), {"pArg1 != NULL", 963},
                      {"PyTuple_SetItem(pArgs, 1, pArg1) == 0", 965});
    return call.run(ANSWER_FORM::KIND::text).text;
}
