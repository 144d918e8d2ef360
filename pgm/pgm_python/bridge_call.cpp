#include "pgm/pgm_python/bridge_call.h"

#include <cstdint>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_thr/zel_thr.h"

namespace {

// The text at a pointer of the C interface; a null pointer is an answer of the wrong type.
std::string text_or_empty(const char* text) {
    PyErr_Clear();
    return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

std::function<PyObject*()> text_argument(const std::string& text) {
    return [&text] { return PyUnicode_FromString(text.c_str()); };
}

std::function<PyObject*()> number_argument(unsigned long number) {
    return [number] { return PyLong_FromLong(static_cast<std::int32_t>(number & 0xFFFFFFFFUL)); };
}

std::string text_of_str(PyObject* result) { return text_or_empty(PyUnicode_AsUTF8(result)); }

std::string text_of_str_or_bytes(PyObject* result) {
    return Py_TYPE(result) == &PyUnicode_Type ? text_of_str(result)
                                              : text_or_empty(PyBytes_AsString(result));
}

unsigned long number_of_int(PyObject* result) {
    const long number = PyLong_AsLong(result);
    PyErr_Clear();
    const bool fits = number >= INT32_MIN && number <= INT32_MAX;
    return fits ? static_cast<std::uint32_t>(number) : 0xFFFFFFFFUL;
}

std::string common_script(const char* format) {
    return MEM_DETAIL::stl_raw_sprintf(format, PGM_COMMON::pgm_get_common_programmer().c_str());
}

BRIDGE_CALL::BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function)
    : m_bridge(bridge), m_script(std::move(script)), m_function(std::move(function)) {}

void BRIDGE_CALL::set_script_arguments(std::vector<std::string> arguments) {
    m_script_arguments = std::move(arguments);
}

void BRIDGE_CALL::set_arguments(const CHECK& tuple_made, std::vector<ARGUMENT> arguments) {
    m_tuple_made = tuple_made;
    m_arguments = std::move(arguments);
}

bool BRIDGE_CALL::run(const CONVERSION& convert) {
    m_convert = convert;
    BACK_CHANNEL back_channel;
    if (m_bridge.back_channel == BACK_CHANNEL_PLACEMENT::early) {
        back_channel.start();
    }
    check_script();
    const bool success = run_session(back_channel);
    if (m_bridge.back_channel == BACK_CHANNEL_PLACEMENT::early) {
        back_channel.complete(success, m_function, m_script);
    }
    return success;
}

void BRIDGE_CALL::check_script() const {
    if (!FIO_FILE_SYSTEM::exists(m_script)) {
        fail(m_bridge.line, "Python script %s doest not exist", m_script);
    }
    require(!m_function.empty(), {"Python function must be specified", m_bridge.line});
}

bool BRIDGE_CALL::run_session(BACK_CHANNEL& back_channel) {
    WIDE_ARGUMENT_VECTOR arguments;
    INTERPRETER_SESSION session;
    arguments.set(m_script, m_script_arguments);
    session.setup_system_path();
    m_script = session.setup_system_path(m_script);
    require(!m_script.empty(), {"filename.size()", m_bridge.line});
    return call_function(back_channel);
}

bool BRIDGE_CALL::call_function(BACK_CHANNEL& back_channel) {
    const PY_REFERENCE name = PY_REFERENCE::owned(PyUnicode_FromString(m_script.c_str()));
    if (!name) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "Fail to convert module name %s to PyObject",
                                  m_script.c_str());
        return false;
    }
    const PY_REFERENCE module = PY_REFERENCE::owned(PyImport_Import(name.get()));
    if (!module) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "Fail to load module %s", m_script.c_str());
        return false;
    }
    const PY_REFERENCE function =
        PY_REFERENCE::owned(PyObject_GetAttrString(module.get(), m_function.c_str()));
    if (!function) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "Fail to find function %s",
                                  m_function.c_str());
        return false;
    }
    const bool late = m_bridge.back_channel == BACK_CHANNEL_PLACEMENT::late;
    if (late) {
        back_channel.start();
    }
    const PY_REFERENCE arguments = make_arguments();
    PY_REFERENCE result =
        PY_REFERENCE::owned(PyObject_CallObject(function.get(), arguments.get()));
    const bool success = static_cast<bool>(result);
    if (success) {
        m_convert(result.get());
        result.reset();
    } else {
        PyErr_Clear();
        if (m_bridge.posts_call_failure) {
            post_and_release(make_execution_failure_msg(m_function, m_script));
        }
    }
    if (late) {
        back_channel.complete(success, m_function, m_script);
    }
    return success;
}

PY_REFERENCE BRIDGE_CALL::make_arguments() const {
    PY_REFERENCE tuple =
        PY_REFERENCE::owned(PyTuple_New(static_cast<Py_ssize_t>(m_arguments.size())));
    require(static_cast<bool>(tuple), m_tuple_made);
    std::vector<PY_REFERENCE> made;
    for (const ARGUMENT& argument : m_arguments) {
        made.push_back(PY_REFERENCE::owned(argument.make()));
        require(static_cast<bool>(made.back()), argument.made);
    }
    for (std::size_t index = 0; index < made.size(); ++index) {
        require(PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(index),
                                made[index].release()) == 0,
                m_arguments[index].placed);
    }
    return tuple;
}

void complete_python_call(bool success, THR_THREAD* thread, PGM_PYTHON_LISTENER_DATA* data,
                          std::string function, std::string file) {
    constexpr int grace_periods = 5;
    constexpr unsigned long grace_period_ms = 100;
    if (!success) {
        for (int period = 0; period < grace_periods && thr_thread_is_running(*thread) != 0;
             ++period) {
            thr_msleep(grace_period_ms);
        }
    }
    if (thr_thread_is_running(*thread) != 0) {
        thr_thread_terminate_and_possibly_crash(*thread);
    } else {
        thr_thread_wait(*thread);
    }
    *thread = nullptr;
    if (success) {
        return;
    }
    post_and_release(function.empty() ? make_execution_failure_file_msg(file)
                                      : make_execution_failure_msg(function, file));
    if (data->received && !data->text.empty()) {
        const std::vector<std::string> pieces = PGM_COMMON::split_string(
            data->text, back_channel_delimiter, true, false, 0xFFFFFFFFUL, {}, "", true);
        for (const std::string& piece : pieces) {
            // A piece ends at its first zero byte.
            post_and_release(make_execution_failure_reason_msg(piece.c_str()));
        }
    }
}
