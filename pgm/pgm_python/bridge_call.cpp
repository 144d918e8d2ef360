#include "pgm/pgm_python/bridge_call.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
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

ARGUMENT text_argument(const std::string& text) {
    return {[&text](INTERPRETER_SESSION&) { return PyUnicode_FromString(text.c_str()); }};
}

ARGUMENT number_argument(unsigned long number) {
    const std::int32_t value = static_cast<std::int32_t>(low_32_bits(number));
    return {[value](INTERPRETER_SESSION&) { return PyLong_FromLong(value); }};
}

ARGUMENT hex_argument(const unsigned char* bytes, std::size_t size) {
    return {[bytes, size](INTERPRETER_SESSION&) -> PyObject* {
        constexpr std::size_t block = 0x4000;
        PyObject* const text = PyUnicode_New(static_cast<Py_ssize_t>(2 * size), 0x7F);
        if (text == nullptr) {
            return nullptr;
        }
        Py_UCS1* const digits = PyUnicode_1BYTE_DATA(text);
        for (std::size_t at = 0; at < size; at += block) {
            const std::size_t count = std::min(block, size - at);
            const std::string part = PGM_COMMON::convert_byte_array_to_standard_hex_string(
                bytes + at, static_cast<unsigned long>(count), true, false);
            // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the str has its end already
            std::memcpy(digits + 2 * at, part.data(), part.size());
        }
        return text;
    }};
}

ARGUMENT bytes_argument(const unsigned char* bytes, std::size_t size) {
    return {[bytes, size](INTERPRETER_SESSION&) {
        PyObject* const array = PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(bytes),
                                                              static_cast<Py_ssize_t>(size));
        if (bytes == nullptr && array != nullptr) {
            overwrite_bytearray(array);
        }
        return array;
    }};
}

ARGUMENT flag_argument(bool flag) {
    return {[flag](INTERPRETER_SESSION&) { return flag ? Py_True : Py_False; },
            ARGUMENT::REFERENCE::borrowed};
}

ARGUMENT map_argument(const std::map<std::string, std::string>& map) {
    return {[&map](INTERPRETER_SESSION& session) {
        PyObject* const dict = PyDict_New();
        for (const auto& entry : map) {
            PY_REFERENCE key = PY_REFERENCE::owned(PyUnicode_FromString(entry.first.c_str()));
            PY_REFERENCE value =
                PY_REFERENCE::owned(key ? PyUnicode_FromString(entry.second.c_str()) : nullptr);
            if (dict == nullptr || !value || PyDict_SetItem(dict, key.get(), value.get()) != 0) {
                break;
            }
            session.keep(std::move(key));
            session.keep(std::move(value));
        }
        return dict;
    }};
}

bool ignore_result(PyObject* /*result*/) {
    return true;
}

std::string text_of_str(PyObject* result) {
    return text_or_empty(PyUnicode_AsUTF8(result));
}

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

BYTES bytes_of_bytearray(PyObject* result) {
    if (result == nullptr || PyByteArray_Check(result) == 0) {
        return {nullptr, 0};
    }
    return {reinterpret_cast<unsigned char*>(PyByteArray_AS_STRING(result)),
            static_cast<std::uint32_t>(PyByteArray_GET_SIZE(result))};
}

std::unique_ptr<unsigned char[]> copy_of(const BYTES& bytes) {
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[bytes.size]);
    if (bytes.size > 0) {
        std::memcpy(buffer.get(), bytes.data, bytes.size);
    }
    return buffer;
}

void overwrite_bytearray(PyObject* object) {
    MEM_DETAIL::overwrite(PyByteArray_AsString(object),
                          static_cast<std::size_t>(PyByteArray_Size(object)));
}

std::string common_script(const char* format) {
    return MEM_DETAIL::stl_raw_sprintf(format, PGM_COMMON::pgm_get_common_programmer().c_str());
}

// The argument tuple of a call, with what is to be done before it goes.
class BRIDGE_CALL::ARGUMENT_TUPLE {
public:
    ARGUMENT_TUPLE() = default;
    ~ARGUMENT_TUPLE() {
        for (const PY_REFERENCE& secret : m_secrets) {
            overwrite_bytearray(secret.get());
        }
        for (PyObject* const object : m_owed) {
            Py_INCREF(object);
        }
    }
    ARGUMENT_TUPLE(const ARGUMENT_TUPLE&) = delete;
    ARGUMENT_TUPLE& operator=(const ARGUMENT_TUPLE&) = delete;

    void make(std::size_t size, const CHECK& made) {
        m_tuple = PY_REFERENCE::owned(PyTuple_New(static_cast<Py_ssize_t>(size)));
        require(static_cast<bool>(m_tuple), made);
    }

    // Places an object, whose reference the tuple takes whatever it is.
    void place(std::size_t index, PyObject* object, ARGUMENT::REFERENCE reference,
               const CHECK& placed) {
        if (reference == ARGUMENT::REFERENCE::owned_secret) {
            m_secrets.push_back(PY_REFERENCE::borrowed(object));
        } else if (reference == ARGUMENT::REFERENCE::borrowed) {
            m_owed.push_back(object);
        }
        require(PyTuple_SetItem(m_tuple.get(), static_cast<Py_ssize_t>(index), object) == 0,
                placed);
    }

    // Takes the pending exception: what an argument was made of is refused.
    void refuse() {
        PyObject* type = nullptr;
        PyObject* value = nullptr;
        PyObject* traceback = nullptr;
        PyErr_Fetch(&type, &value, &traceback);
        m_refusal = {PY_REFERENCE::owned(type), PY_REFERENCE::owned(value),
                     PY_REFERENCE::owned(traceback)};
    }

    // Calls a function with the tuple, or, after a refusal, raises that exception again.
    PyObject* call(PyObject* function) {
        if (m_refusal[0]) {
            PyErr_Restore(m_refusal[0].release(), m_refusal[1].release(), m_refusal[2].release());
            return nullptr;
        }
        return PyObject_CallObject(function, m_tuple.get());
    }

private:
    PY_REFERENCE m_tuple;
    std::vector<PY_REFERENCE> m_secrets;
    std::vector<PyObject*> m_owed;
    std::array<PY_REFERENCE, 3> m_refusal;
};

BRIDGE_CALL::BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function)
    : m_bridge(bridge), m_script(std::move(script)), m_function(std::move(function)) {}

void BRIDGE_CALL::set_script_arguments(std::vector<std::string> arguments) {
    m_script_arguments = std::move(arguments);
}

void BRIDGE_CALL::expect_tuple(const CHECK& made) {
    m_tuple_made = made;
}

void BRIDGE_CALL::add_argument(ARGUMENT argument, const CHECK& made, const CHECK& placed) {
    m_rows.push_back({std::move(argument), made, placed});
}

bool BRIDGE_CALL::run(const CONVERSION& convert) {
    BACK_CHANNEL back_channel;
    if (m_bridge.back_channel == BACK_CHANNEL_PLACEMENT::early) {
        back_channel.start();
    }
    if (m_bridge.checks_script) {
        check_script();
    }
    const bool success = run_session(convert, back_channel);
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

bool BRIDGE_CALL::run_session(const CONVERSION& convert, BACK_CHANNEL& back_channel) {
    WIDE_ARGUMENT_VECTOR arguments;
    INTERPRETER_SESSION session;
    if (m_bridge.sets_argument_vector) {
        arguments.set(m_script, m_script_arguments);
    }
    if (m_bridge.sets_suite_folders) {
        session.setup_system_path();
    }
    m_script = session.setup_system_path(m_script);
    require(!m_script.empty(), {m_bridge.module_name_check, m_bridge.line});
    return call_function(convert, session, back_channel);
}

bool BRIDGE_CALL::call_function(const CONVERSION& convert, INTERPRETER_SESSION& session,
                                BACK_CHANNEL& back_channel) {
    // Ends a failed step: prints the pending traceback and a line.
    const auto print_failure = [](const char* format, const std::string& name) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, format, name.c_str());
        return false;
    };
    const PY_REFERENCE name = PY_REFERENCE::owned(PyUnicode_FromString(m_script.c_str()));
    if (!name) {
        return print_failure("Fail to convert module name %s to PyObject", m_script);
    }
    const PY_REFERENCE module = PY_REFERENCE::owned(PyImport_Import(name.get()));
    if (!module) {
        return print_failure("Fail to load module %s", m_script);
    }
    // Built before or after the function is looked up, and released the other way round.
    ARGUMENT_TUPLE tuple_before;
    if (m_bridge.builds_arguments_first) {
        build_arguments(tuple_before, session);
    }
    const PY_REFERENCE function =
        PY_REFERENCE::owned(PyObject_GetAttrString(module.get(), m_function.c_str()));
    if (!function) {
        return print_failure(m_bridge.lookup_failure, m_function);
    }
    const bool late = m_bridge.back_channel == BACK_CHANNEL_PLACEMENT::late;
    if (late) {
        back_channel.start();
    }
    ARGUMENT_TUPLE tuple_after;
    if (!m_bridge.builds_arguments_first) {
        build_arguments(tuple_after, session);
    }
    ARGUMENT_TUPLE& tuple = m_bridge.builds_arguments_first ? tuple_before : tuple_after;
    m_made = true;
    PY_REFERENCE result = PY_REFERENCE::owned(tuple.call(function.get()));
    const bool success = result && convert(result.get());
    if (!m_bridge.keeps_result) {
        result.reset();
    }
    if (!success) {
        report_call_failure();
    }
    if (late) {
        back_channel.complete(success, m_function, m_script);
    }
    return success;
}

void BRIDGE_CALL::build_arguments(ARGUMENT_TUPLE& tuple, INTERPRETER_SESSION& session) const {
    if (m_tuple_made.text == nullptr) {
        return;
    }
    tuple.make(m_rows.size(), m_tuple_made);
    // Objects that are made and not yet placed.
    std::vector<PY_REFERENCE> owned(m_rows.size());
    std::vector<PyObject*> made(m_rows.size());
    const auto place = [&](std::size_t index) {
        owned[index].release();
        tuple.place(index, made[index], m_rows[index].argument.reference, m_rows[index].placed);
    };
    for (std::size_t index = 0; index < m_rows.size(); ++index) {
        const ROW& row = m_rows[index];
        made[index] = row.argument.make(session);
        if (row.argument.reference != ARGUMENT::REFERENCE::borrowed) {
            owned[index] = PY_REFERENCE::owned(made[index]);
            require(made[index] != nullptr, row.made);
        }
        if (PyErr_Occurred() != nullptr) {
            tuple.refuse();
        }
        if (m_bridge.places_one_by_one) {
            place(index);
        }
    }
    for (std::size_t index = 0; index < m_rows.size() && !m_bridge.places_one_by_one; ++index) {
        place(index);
    }
}

void BRIDGE_CALL::report_call_failure() const {
    if (m_bridge.call_failure != nullptr) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "%s", m_bridge.call_failure);
    }
    PyErr_Clear();
    if (m_bridge.posts_call_failure) {
        post_and_release(make_execution_failure_msg(m_function, m_script));
    }
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
            post_and_release(make_execution_failure_reason_msg(piece.substr(0, piece.find('\0'))));
        }
    }
}
