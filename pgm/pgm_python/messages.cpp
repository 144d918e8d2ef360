#include "pgm/pgm_python/messages.h"

#include <atomic>
#include <cstdlib>
#include <vector>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_py/py_reference.h"
#include "zel/zel_py/zel_py.h"

namespace {

constexpr char module_name[] = "PGM_PYTHON";
constexpr char source_name[] = "pgm/pgm_python/pgm_python_mgr";

constexpr unsigned long execution_failure = 20351;
constexpr unsigned long execution_failure_reason = 20353;
constexpr unsigned long execution_failure_file = 20354;

// The suite's numbers of this library, in the suite's order. The first two are registered and never
// posted.
constexpr unsigned long registered_ids[] = {20246, 20259, execution_failure, execution_failure_file,
                                            execution_failure_reason};
constexpr int registered_types[] = {0, 0, 0, 0, 0};

const MEM_INITIALIZER module_initializer(module_name);
const MSG_ID_REGISTRAR id_registrar(registered_ids, registered_types, 5);

MSG_E* make_message(unsigned long id, const char* literal,
                    const std::vector<std::string>& arguments) {
    std::unique_ptr<MSG_E> message(new MSG_E(nullptr));
    message->fill_args(literal, arguments);
    message->set_id(id);
    return message.release();
}

std::atomic<void (*)()> fatal_report_returned{nullptr};

[[noreturn]] void end_process() {
    if (void (*const returned)() = fatal_report_returned.load()) {
        returned();
    }
    std::abort();
}

}  // namespace

void tell_of_fatal_reports(void (*returned)()) {
    fatal_report_returned = returned;
}

void fail(const CHECK& check) {
    MSG_INTERNAL_ERROR::report(check.text, module_name, source_name, check.line);
    end_process();
}

void fail(int line, const char* format, const std::string& argument) {
    MSG_INTERNAL_ERROR::report_varg(module_name, source_name, line, format, argument.c_str());
    end_process();
}

void report_and_go_on(const CHECK& check) {
    MSG_INTERNAL_ERROR::report(check.text, module_name, source_name, check.line);
}

void report_and_go_on(int line, const char* format, int argument) {
    MSG_INTERNAL_ERROR::report_varg(module_name, source_name, line, format, argument);
}

MSG_E* make_execution_failure_msg(const std::string& function, const std::string& file) {
    return make_message(execution_failure,
                        "Fail to execute function %1!s! in file %2!s!"
                        "/EPGM_PYTHON_PYTHON_EXECUTION_FAILURE",
                        {function, file});
}

MSG_E* make_execution_failure_file_msg(const std::string& file) {
    return make_message(execution_failure_file,
                        "Fail to execute file %1!s!/EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_FILE",
                        {file});
}

MSG_E* make_execution_failure_reason_msg(const std::string& reason) {
    return make_message(execution_failure_reason,
                        "%1!s!/EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_REASON", {reason});
}

void post_and_release(MSG_E* message) {
    const std::unique_ptr<MSG_E> owned(message);
    owned->post();
}

void PGM_PYTHON_MGR::print_python_error() {
    if (PyErr_Occurred() != nullptr) {
        py_print_error();
    }
}
