// The bridges that ask the common script small questions, and the memory reader.

#include <memory>

#include "pgm/pgm_python/bridge_call.h"
#include "pgm/pgm_python/pgm_python_mgr.h"

namespace {

constexpr char common_function_script[] = "%s/python/pgm_python_common_function.pyc";

constexpr BRIDGE get_username_bridge = BRIDGE(819).posting_call_failure();
constexpr BRIDGE query_opn_enum_bridge = BRIDGE(723).posting_call_failure();
constexpr BRIDGE query_opn_name_bridge = BRIDGE(771).posting_call_failure();
constexpr BRIDGE read_mif_bridge =
    BRIDGE(663).posting_call_failure().placing_arguments_one_by_one();

}  // namespace

std::string PGM_PYTHON_MGR::get_username(std::string user) {
    std::string username;
    BRIDGE_CALL call(get_username_bridge, common_script(common_function_script), "get_username");
    call.expect_tuple({"pArgs != NULL", 823});
    call.add_argument(text_argument(user), {"pArg != NULL", 825},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 826});
    call.run([&](PyObject* result) {
        username = text_of_str_or_bytes(result);
        return true;
    });
    return username;
}

std::string PGM_PYTHON_MGR::query_opn_enum(unsigned long opn_code) {
    std::string opn_name;
    BRIDGE_CALL call(query_opn_enum_bridge, common_script(common_function_script),
                     "query_opn_enum");
    call.expect_tuple({"pArgs != NULL", 727});
    call.add_argument(number_argument(opn_code), {"pArg != NULL", 729},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 730});
    call.run([&](PyObject* result) {
        opn_name = text_of_str(result);
        return true;
    });
    return opn_name;
}

unsigned long PGM_PYTHON_MGR::query_opn_name(std::string opn_name) {
    unsigned long opn_code = 0xFFFFFFFFUL;
    BRIDGE_CALL call(query_opn_name_bridge, common_script(common_function_script),
                     "query_opn_name");
    call.expect_tuple({"pArgs != NULL", 775});
    call.add_argument(text_argument(opn_name), {"pArg != NULL", 777},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 778});
    call.run([&](PyObject* result) {
        opn_code = number_of_int(result);
        return true;
    });
    return opn_code;
}

unsigned char* PGM_PYTHON_MGR::read_mif(std::string file, bool continuous, unsigned long& width,
                                        unsigned long& depth, unsigned long& size) {
    std::unique_ptr<unsigned char[]> image;
    BRIDGE_CALL call(read_mif_bridge, common_script(common_function_script), "read_mif");
    call.expect_tuple({"pArgs != NULL", 667});
    call.add_argument(text_argument(file), {"pArg != NULL", 669},
                      {"PyTuple_SetItem(pArgs, 0, pArg) == 0", 670});
    call.add_argument(flag_argument(continuous), {nullptr, 0},
                      {"PyTuple_SetItem(pArgs, 1, continuous ? Py_True : Py_False) == 0", 671});
    call.run([&](PyObject* result) {
        require(PyList_Check(result) != 0 && PyList_Size(result) == 3, {"return_size == 3", 676});
        const BYTES bytes = bytes_of_bytearray(PyList_GET_ITEM(result, 0));
        std::unique_ptr<unsigned char[]> copy = copy_of(bytes);
        // Owned, because reading a number may run code of the script, which may change the list.
        const PY_REFERENCE width_object = PY_REFERENCE::borrowed(PyList_GET_ITEM(result, 1));
        require(static_cast<bool>(width_object), {"width_object != NULL", 682});
        const PY_REFERENCE depth_object = PY_REFERENCE::borrowed(PyList_GET_ITEM(result, 2));
        require(static_cast<bool>(depth_object), {"depth_object != NULL", 685});
        size = static_cast<unsigned long>(bytes.size);
        width = number_of_int(width_object.get());
        depth = number_of_int(depth_object.get());
        image = std::move(copy);
        return true;
    });
    return image.release();
}
