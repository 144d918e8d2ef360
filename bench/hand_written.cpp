// The calls as one would write them by hand against the C interface of Python, step by step what
// the library does: same configuration, same statements, same order. Answers are taken to be of the
// right type.

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "bench/contestant.h"
#include "bench/hand_written_listener.h"
#include "pgm/pgm_common/pgm_common.h"

namespace {

struct CALL {
    std::string script;
    const char* function;
    CHANNEL channel = CHANNEL::none;
    // Neither argument vector nor the suite's folders, and the tuple before the function.
    bool network_format = false;
};

void demand(bool condition, const char* what) {
    if (!condition) {
        if (PyErr_Occurred() != nullptr) {
            PyErr_Print();
        }
        stop(std::string("written by hand: ") + what);
    }
}

void start_interpreter() {
#if PY_VERSION_HEX >= 0x03080000
    PyPreConfig before;
    PyPreConfig_InitPythonConfig(&before);
    before.parse_argv = 0;
    before.coerce_c_locale = 0;
    demand(PyStatus_Exception(Py_PreInitialize(&before)) == 0, "Py_PreInitialize");
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.parse_argv = 0;
    config.install_signal_handlers = 0;
    config.configure_c_stdio = 0;
    PyConfig_SetBytesString(&config, &config.program_name, BENCH_PYTHON);
    demand(PyStatus_Exception(Py_InitializeFromConfig(&config)) == 0, "Py_InitializeFromConfig");
    PyConfig_Clear(&config);
#else
    static wchar_t* const name = Py_DecodeLocale(BENCH_PYTHON, nullptr);
    Py_SetProgramName(name);
    Py_InitializeEx(0);
#endif
}

void set_arguments(wchar_t* script) {
#if PY_VERSION_HEX >= 0x030B0000
    PyObject* const list = PyList_New(0);
    PyObject* const text = PyUnicode_FromWideChar(script, -1);
    demand(PyList_Append(list, text) == 0 && PySys_SetObject("argv", list) == 0, "sys.argv");
    Py_DECREF(text);
    Py_DECREF(list);
#else
    PySys_SetArgvEx(1, &script, 0);
#endif
}

void run(const std::string& statement) {
    demand(PyRun_SimpleString(statement.c_str()) == 0, statement.c_str());
}

void insert_folder(const std::string& folder) {
    run("sys.path.insert(0, \"" + folder + "\")");
}

// Walks the whole road. `make_arguments` gives the tuple, `convert` gets the result. Returns
// whether the function returned.
bool call_script(const CALL& call, const std::function<PyObject*()>& make_arguments,
                 const std::function<void(PyObject*)>& convert,
                 std::vector<std::string>* reasons = nullptr) {
    HAND_WRITTEN_LISTENER listener;
    if (call.channel == CHANNEL::early) {
        listener.start();
    }
    struct stat status;
    demand(::stat(call.script.c_str(), &status) == 0, "no script");
    start_interpreter();
    std::vector<wchar_t> wide_script(call.script.size() + 1);
    if (!call.network_format) {
        std::mbstowcs(wide_script.data(), call.script.c_str(), call.script.size());
        set_arguments(wide_script.data());
        run("import sys");
        run("import os");
        insert_folder(common_folder() + "/python");
        insert_folder(common_folder() + "/python/source");
        insert_folder(unshipped_folder() + "/python/source");
        run("os.environ[\"PGM_PYTHON_BIN_DIR\"] = \"" + bin_folder() + "\"");
    } else {
        run("import sys");
    }
    const std::size_t slash = call.script.rfind('/');
    insert_folder(call.script.substr(0, slash));
    const std::string module_name =
        call.script.substr(slash + 1, call.script.rfind('.') - slash - 1);

    PyObject* const name = PyUnicode_FromString(module_name.c_str());
    PyObject* const module = PyImport_Import(name);
    demand(module != nullptr, "import");
    PyObject* arguments = call.network_format ? make_arguments() : nullptr;
    PyObject* const function = PyObject_GetAttrString(module, call.function);
    demand(function != nullptr, "function");
    if (call.channel == CHANNEL::late) {
        listener.start();
    }
    if (arguments == nullptr) {
        arguments = make_arguments();
    }
    PyObject* const result = PyObject_CallObject(function, arguments);
    const bool success = result != nullptr;
    if (success) {
        convert(result);
        Py_DECREF(result);
    } else {
        PyErr_Clear();
    }
    std::vector<std::string> told;
    if (call.channel == CHANNEL::late) {
        told = listener.finish(success);
    }
    Py_DECREF(arguments);
    Py_DECREF(function);
    Py_DECREF(module);
    Py_DECREF(name);
    Py_FinalizeEx();
    if (call.channel == CHANNEL::early) {
        told = listener.finish(success);
    }
    if (reasons != nullptr) {
        *reasons = told;
    }
    return success;
}

// A tuple of new references.
PyObject* tuple_of(const std::vector<PyObject*>& items) {
    PyObject* const tuple = PyTuple_New(static_cast<Py_ssize_t>(items.size()));
    for (std::size_t index = 0; index < items.size(); ++index) {
        demand(items[index] != nullptr, "argument");
        PyTuple_SetItem(tuple, static_cast<Py_ssize_t>(index), items[index]);
    }
    return tuple;
}

PyObject* text(const std::string& value) {
    return PyUnicode_FromString(value.c_str());
}

PyObject* number(unsigned long value) {
    return PyLong_FromLong(static_cast<int>(value));
}

PyObject* dict_of(const TEXT_MAP& map) {
    PyObject* const dict = PyDict_New();
    for (const auto& entry : map) {
        PyObject* const key = text(entry.first);
        PyObject* const value = text(entry.second);
        PyDict_SetItem(dict, key, value);
        Py_DECREF(key);
        Py_DECREF(value);
    }
    return dict;
}

BUFFER copy_of(PyObject* bytearray) {
    BUFFER copy;
    copy.size = static_cast<std::size_t>(PyByteArray_Size(bytearray));
    copy.data.reset(new unsigned char[copy.size]);
    std::memcpy(copy.data.get(), PyByteArray_AsString(bytearray), copy.size);
    return copy;
}

void append(std::vector<unsigned char>& data, PyObject* bytearray) {
    const auto* const bytes = reinterpret_cast<unsigned char*>(PyByteArray_AsString(bytearray));
    data.insert(data.end(), bytes, bytes + PyByteArray_Size(bytearray));
}

class HAND_WRITTEN : public CONTESTANT {
public:
    std::string name() const override { return "by hand"; }

    unsigned long query_opn_name(const std::string& name) override {
        unsigned long code = 0xFFFFFFFFUL;
        call_script(
            {common_folder() + "/python/pgm_python_common_function.pyc", "query_opn_name"},
            [&] { return tuple_of({text(name)}); },
            [&](PyObject* result) { code = static_cast<unsigned int>(PyLong_AsLong(result)); });
        return code;
    }

    std::string get_username(const std::string& user) override {
        std::string username;
        call_script(
            {common_folder() + "/python/pgm_python_common_function.pyc", "get_username"},
            [&] { return tuple_of({text(user)}); },
            [&](PyObject* result) { username = PyUnicode_AsUTF8(result); });
        return username;
    }

    BUFFER generate_compact_cert(unsigned long first_number, unsigned long second_number,
                                 const std::vector<unsigned char>& content) override {
        BUFFER certificate;
        call_script(
            {common_folder() + "/python/compact_cert_sign.pyc", "external_sign_function",
             CHANNEL::late},
            [&] {
                return tuple_of(
                    {number(first_number), number(second_number),
                     text(PGM_COMMON::convert_byte_array_to_standard_hex_string(
                         const_cast<unsigned char*>(content.data()), content.size(), true, false)),
                     text(""), text("")});
            },
            [&](PyObject* result) { certificate = copy_of(result); });
        return certificate;
    }

    BUFFER modify_bitstream(const std::vector<unsigned char>& data) override {
        BUFFER changed;
        call_script(
            {unshipped_folder() + "/python/pgm_internal_tool.pyc", "change_bitstream",
             CHANNEL::early},
            [&] {
                return tuple_of(
                    {PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(data.data()),
                                                   static_cast<Py_ssize_t>(data.size()))});
            },
            [&](PyObject* result) { changed = copy_of(result); });
        return changed;
    }

    std::vector<unsigned char> get_chunks(const std::string& request,
                                          const std::string& kind) override {
        std::vector<unsigned char> data;
        const TEXT_MAP none;
        call_script(
            {common_folder() + "nwfmt/network_format.py", "get_bram_chunks", CHANNEL::late, true},
            [&] { return network_format_tuple(request, kind, none); },
            [&](PyObject* result) {
                Py_ssize_t size = 0;
                for (Py_ssize_t index = 0; index < PyList_Size(result); ++index) {
                    size += PyByteArray_Size(PyList_GetItem(result, index));
                }
                data.reserve(static_cast<std::size_t>(size));
                for (Py_ssize_t index = 0; index < PyList_Size(result); ++index) {
                    append(data, PyList_GetItem(result, index));
                }
            });
        return data;
    }

    std::vector<unsigned char> get_hash_and_size(const std::string& kind, const TEXT_MAP& map,
                                                 unsigned long& size) override {
        std::vector<unsigned char> hash;
        call_script(
            {common_folder() + "nwfmt/network_format.py", "get_bram_hash_and_size", CHANNEL::late,
             true},
            [&] { return network_format_tuple("", kind, map); },
            [&](PyObject* result) {
                append(hash, PyList_GetItem(result, 0));
                size = static_cast<unsigned int>(PyLong_AsLong(PyList_GetItem(result, 1)));
            });
        return hash;
    }

    bool generate_rim(const std::string& family, std::vector<std::string>& reasons) override {
        return call_script(
            {common_folder() + "/python/rim_generator.pyc", "external_make_rim_function",
             CHANNEL::early},
            [&] {
                return tuple_of(
                    {text(rim_input), text(family), number(rim_number), text(rim_output)});
            },
            [](PyObject*) {}, &reasons);
    }

private:
    static PyObject* network_format_tuple(const std::string& request, const std::string& kind,
                                          const TEXT_MAP& map) {
        return tuple_of(
            {text(request), dict_of(map), dict_of(map), text(kind), dict_of(map), dict_of(map)});
    }
};

}  // namespace

std::unique_ptr<CONTESTANT> make_hand_written() {
    return std::unique_ptr<CONTESTANT>(new HAND_WRITTEN);
}
