// The bridges that ask the common script small questions, and the memory reader.

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"

namespace {

constexpr char common_function_script[] = "%s/python/pgm_python_common_function.pyc";

constexpr BRIDGE get_username_bridge = BRIDGE(819).posting_call_failure();
constexpr BRIDGE query_opn_enum_bridge = BRIDGE(723).posting_call_failure();
constexpr BRIDGE query_opn_name_bridge = BRIDGE(771).posting_call_failure();
constexpr BRIDGE read_mif_bridge =
    BRIDGE(663).posting_call_failure().placing_arguments_one_by_one();

// A list of a bytearray, the image, and two ints, width and depth.
constexpr ANSWER_FORM read_mif_answer = {
    ANSWER_FORM::KIND::items,
    {"return_size == 3", 676},
    {},
    {{{ANSWER_FORM::KIND::bytes, {}, false},
      {ANSWER_FORM::KIND::number, {"width_object != NULL", 682}, false},
      {ANSWER_FORM::KIND::number, {"depth_object != NULL", 685}, false}}},
    3};

}  // namespace

std::string PGM_PYTHON_MGR::get_username(std::string user) {
    BRIDGE_CALL call(get_username_bridge, common_script(common_function_script), "get_username");
    call.expect_tuple({"pArgs != NULL", 823});
    call.add_argument(text_argument(user), {"pArg != NULL", 825},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 826});
    return call.run(ANSWER_FORM::KIND::text_or_bytes).text;
}

std::string PGM_PYTHON_MGR::query_opn_enum(unsigned long opn_code) {
    BRIDGE_CALL call(query_opn_enum_bridge, common_script(common_function_script),
                     "query_opn_enum");
    call.expect_tuple({"pArgs != NULL", 727});
    call.add_argument(number_argument(opn_code), {"pArg != NULL", 729},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 730});
    return call.run(ANSWER_FORM::KIND::text).text;
}

unsigned long PGM_PYTHON_MGR::query_opn_name(std::string opn_name) {
    BRIDGE_CALL call(query_opn_name_bridge, common_script(common_function_script),
                     "query_opn_name");
    call.expect_tuple({"pArgs != NULL", 775});
    call.add_argument(text_argument(opn_name), {"pArg != NULL", 777},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 778});
    const ANSWER answer = call.run(ANSWER_FORM::KIND::number);
    return answer.success ? answer.numbers.at(0) : 0xFFFFFFFFUL;
}

unsigned char* PGM_PYTHON_MGR::read_mif(std::string file, bool continuous, unsigned long& width,
                                        unsigned long& depth, unsigned long& size) {
    BRIDGE_CALL call(read_mif_bridge, common_script(common_function_script), "read_mif");
    call.expect_tuple({"pArgs != NULL", 667});
    call.add_argument(text_argument(file), {"pArg != NULL", 669},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 670});
    call.add_argument(flag_argument(continuous), {nullptr, 0},
                      {"PyTuple_SetItem(pArgs, 1, continuous ? Py_True : Py_False) == 0", 671});
    ANSWER answer = call.run(read_mif_answer);
    if (answer.success) {
        size = static_cast<unsigned long>(answer.bytes.size());
        width = answer.numbers.at(0);
        depth = answer.numbers.at(1);
    }
    return answer.bytes.release();
}
