#include "pgm/pgm_python/call_road.h"

#include <array>
#include <cstddef>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/python_values.h"

namespace {

// The argument tuple of a call, with what is to be done before it goes.
class ARGUMENT_TUPLE {
public:
    ARGUMENT_TUPLE() = default;
    ~ARGUMENT_TUPLE() {
        if (m_secret) {
            overwrite_bytearray(m_secret.get());
        }
        for (PyObject* const object : m_owed) {
            Py_INCREF(object);
        }
    }
    ARGUMENT_TUPLE(const ARGUMENT_TUPLE&) = delete;
    ARGUMENT_TUPLE& operator=(const ARGUMENT_TUPLE&) = delete;

    // Makes the tuple with the items of the request.
    void build(const CALL_REQUEST& request, INTERPRETER_SESSION& session) {
        if (request.tuple_made.text == nullptr) {
            return;
        }
        const std::vector<ARGUMENT_ROW>& rows = request.rows;
        m_tuple = PY_REFERENCE::owned(PyTuple_New(static_cast<Py_ssize_t>(rows.size())));
        require(static_cast<bool>(m_tuple), request.tuple_made);
        // Objects that are made and not yet placed.
        std::vector<PY_REFERENCE> owned(rows.size());
        std::vector<PyObject*> made(rows.size());
        const auto place_next = [&](std::size_t index) {
            owned[index].release();
            place(index, made[index], rows[index]);
        };
        for (std::size_t index = 0; index < rows.size(); ++index) {
            const ARGUMENT_ROW& row = rows[index];
            made[index] = make_object(row.argument, session);
            if (row.argument.kind != ARGUMENT::KIND::flag) {
                owned[index] = PY_REFERENCE::owned(made[index]);
                require(made[index] != nullptr, row.made);
            }
            if (PyErr_Occurred() != nullptr) {
                refuse();
            }
            if (request.bridge.places_one_by_one) {
                place_next(index);
            }
        }
        for (std::size_t index = 0; index < rows.size() && !request.bridge.places_one_by_one;
             ++index) {
            place_next(index);
        }
    }

    // Calls a function with the tuple, or, after a refusal, raises that exception again.
    PyObject* call(PyObject* function) {
        if (m_refusal[0]) {
            PyErr_Restore(m_refusal[0].release(), m_refusal[1].release(), m_refusal[2].release());
            return nullptr;
        }
        return PyObject_CallObject(function, m_tuple.get());
    }

    // The bytearray that the script was to fill in; null where there is none.
    PyObject* filled_in() const { return m_secret.get(); }

private:
    // Places an object, whose reference the tuple takes whatever it is.
    void place(std::size_t index, PyObject* object, const ARGUMENT_ROW& row) {
        if (row.argument.kind == ARGUMENT::KIND::filled_in) {
            m_secret = PY_REFERENCE::borrowed(object);
        } else if (row.argument.kind == ARGUMENT::KIND::flag) {
            m_owed.push_back(object);
        }
        require(PyTuple_SetItem(m_tuple.get(), static_cast<Py_ssize_t>(index), object) == 0,
                row.placed);
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

    PY_REFERENCE m_tuple;
    PY_REFERENCE m_secret;
    std::vector<PyObject*> m_owed;
    std::array<PY_REFERENCE, 3> m_refusal;
};

}  // namespace

// One walk, used once.
class CALL_ROAD {
public:
    CALL_ROAD(const CALL_REQUEST& request, ROAD_SURROUNDINGS& surroundings)
        : m_request(request), m_surroundings(surroundings) {}

    ANSWER walk() {
        WIDE_ARGUMENT_VECTOR arguments;
        INTERPRETER_SESSION session(m_request.settings.calls);
        if (m_request.bridge.sets_argument_vector) {
            arguments.set(m_request.script, m_request.script_arguments);
        }
        if (m_request.bridge.sets_suite_folders) {
            session.setup_system_path();
        }
        m_answer.module = session.setup_system_path(m_request.script);
        require(!m_answer.module.empty(),
                {m_request.bridge.module_name_check, m_request.bridge.line});
        m_surroundings.hear_of(m_answer.module, false);
        session.announce_reasons_channel(m_request.announced_channel);
        m_answer.success = call_function(session);
        return std::move(m_answer);
    }

private:
    bool call_function(INTERPRETER_SESSION& session);
    void report_call_failure() const;

    const CALL_REQUEST& m_request;
    ROAD_SURROUNDINGS& m_surroundings;
    ANSWER m_answer;
};

bool CALL_ROAD::call_function(INTERPRETER_SESSION& session) {
    // Ends a failed step: prints the pending traceback and a line.
    const auto print_failure = [](const char* format, const std::string& name) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, format, name.c_str());
        return false;
    };
    const BRIDGE& bridge = m_request.bridge;
    const PY_REFERENCE name = PY_REFERENCE::owned(PyUnicode_FromString(m_answer.module.c_str()));
    if (!name) {
        return print_failure("Fail to convert module name %s to PyObject", m_answer.module);
    }
    const PY_REFERENCE module = PY_REFERENCE::owned(PyImport_Import(name.get()));
    if (!module) {
        return print_failure("Fail to load module %s", m_answer.module);
    }
    // Built before or after the function is looked up, and released the other way round.
    ARGUMENT_TUPLE tuple_before;
    if (bridge.builds_arguments_first) {
        tuple_before.build(m_request, session);
    }
    const PY_REFERENCE function =
        PY_REFERENCE::owned(PyObject_GetAttrString(module.get(), m_request.function.c_str()));
    if (!function) {
        return print_failure(bridge.lookup_failure, m_request.function);
    }
    const bool late = bridge.back_channel == BACK_CHANNEL_PLACEMENT::late;
    const std::string channel = late ? m_surroundings.start_back_channel() : "";
    ARGUMENT_TUPLE tuple_after;
    if (!bridge.builds_arguments_first) {
        tuple_after.build(m_request, session);
    }
    session.announce_reasons_channel(channel);
    ARGUMENT_TUPLE& tuple = bridge.builds_arguments_first ? tuple_before : tuple_after;
    m_answer.made = true;
    m_surroundings.hear_of(m_answer.module, true);
    const auto take_bytes = [this](const unsigned char* bytes, std::size_t size) {
        return m_surroundings.take_bytes(bytes, size);
    };
    PY_REFERENCE result = PY_REFERENCE::owned(tuple.call(function.get()));
    const bool success = result && take_answer(m_request.form, result.get(), tuple.filled_in(),
                                               take_bytes, m_answer);
    if (!bridge.keeps_result) {
        result.reset();
    }
    if (!success) {
        report_call_failure();
    }
    if (late) {
        m_surroundings.complete(success, m_request.function, m_answer.module);
    }
    return success;
}

void CALL_ROAD::report_call_failure() const {
    const BRIDGE& bridge = m_request.bridge;
    if (bridge.call_failure != nullptr) {
        PGM_PYTHON_MGR::print_python_error();
        PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "%s", bridge.call_failure);
    } else if (m_request.settings.traceback) {
        PGM_PYTHON_MGR::print_python_error();
    }
    PyErr_Clear();
    if (bridge.posts_call_failure) {
        post_and_release(make_execution_failure_msg(m_request.function, m_answer.module));
    }
}

ANSWER walk_road(const CALL_REQUEST& request, ROAD_SURROUNDINGS& surroundings) {
    return CALL_ROAD(request, surroundings).walk();
}
