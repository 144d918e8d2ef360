// The bridges that ask the common script small questions.

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"

namespace {

constexpr char common_function_script[] = "%s/python/pgm_python_common_function.pyc";

constexpr BRIDGE get_username_bridge = {819, BACK_CHANNEL_PLACEMENT::none, true};
constexpr BRIDGE query_opn_enum_bridge = {723, BACK_CHANNEL_PLACEMENT::none, true};
constexpr BRIDGE query_opn_name_bridge = {771, BACK_CHANNEL_PLACEMENT::none, true};

}  // namespace

std::string PGM_PYTHON_MGR::get_username(std::string user) {
    std::string username;
    BRIDGE_CALL call(get_username_bridge, common_script(common_function_script), "get_username");
    call.set_arguments({"pArgs != NULL", 823}, {
        {text_argument(user), {"pArg != NULL", 825}, {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 826}},
    });
    call.run([&](PyObject* result) { username = text_of_str_or_bytes(result); });
    return username;
}

std::string PGM_PYTHON_MGR::query_opn_enum(unsigned long opn_code) {
    std::string opn_name;
    BRIDGE_CALL call(query_opn_enum_bridge, common_script(common_function_script), "query_opn_enum");
    call.set_arguments({"pArgs != NULL", 727}, {
        {number_argument(opn_code), {"pArg != NULL", 729}, {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 730}},
    });
    call.run([&](PyObject* result) { opn_name = text_of_str(result); });
    return opn_name;
}

unsigned long PGM_PYTHON_MGR::query_opn_name(std::string opn_name) {
    unsigned long opn_code = 0xFFFFFFFFUL;
    BRIDGE_CALL call(query_opn_name_bridge, common_script(common_function_script), "query_opn_name");
    call.set_arguments({"pArgs != NULL", 775}, {
        {text_argument(opn_name), {"pArg != NULL", 777}, {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 778}},
    });
    call.run([&](PyObject* result) { opn_code = number_of_int(result); });
    return opn_code;
}
