// The calls as one would write them with pybind11.

#include <pybind11/embed.h>
#include <pybind11/stl.h>

#include <cstring>

#include "bench/contestant.h"
#include "bench/hand_written_listener.h"
#include "pgm/pgm_common/pgm_common.h"

namespace py = pybind11;

namespace {

// Walks the whole road; `use` gets the script's function, calls it and converts the answer.
template <typename USE>
bool call_script(const std::string& script, const char* function, CHANNEL channel,
                 bool network_format, const USE& use, std::vector<std::string>* reasons = nullptr) {
    HAND_WRITTEN_LISTENER listener;
    if (channel == CHANNEL::early) {
        listener.start();
    }
    bool success = true;
    std::vector<std::string> told;
    {
        const py::scoped_interpreter interpreter(false, 0, nullptr, false);
        const py::module_ sys = py::module_::import("sys");
        const py::object insert = sys.attr("path").attr("insert");
        if (!network_format) {
            py::list argv;
            argv.append(script);
            sys.attr("argv") = argv;
            insert(0, common_folder() + "/python");
            insert(0, common_folder() + "/python/source");
            insert(0, unshipped_folder() + "/python/source");
            py::module_::import("os").attr("environ")["PGM_PYTHON_BIN_DIR"] = bin_folder();
        }
        const std::size_t slash = script.rfind('/');
        insert(0, script.substr(0, slash));
        const py::module_ module =
            py::module_::import(script.substr(slash + 1, script.rfind('.') - slash - 1).c_str());
        const py::object found = module.attr(function);
        if (channel == CHANNEL::late) {
            listener.start();
        }
        try {
            use(found);
        } catch (const py::error_already_set&) {
            success = false;
        }
        if (channel == CHANNEL::late) {
            told = listener.finish(success);
        }
    }
    if (channel == CHANNEL::early) {
        told = listener.finish(success);
    }
    if (reasons != nullptr) {
        *reasons = told;
    }
    return success;
}

BUFFER copy_of(const py::bytearray& bytes) {
    BUFFER copy;
    copy.size = bytes.size();
    copy.data.reset(new unsigned char[copy.size]);
    std::memcpy(copy.data.get(), PyByteArray_AsString(bytes.ptr()), copy.size);
    return copy;
}

void append(std::vector<unsigned char>& data, const py::bytearray& bytes) {
    const auto* const begin = reinterpret_cast<unsigned char*>(PyByteArray_AsString(bytes.ptr()));
    data.insert(data.end(), begin, begin + bytes.size());
}

class PYBIND11 : public CONTESTANT {
public:
    std::string name() const override { return "pybind11"; }

    unsigned long query_opn_name(const std::string& name) override {
        unsigned long code = 0;
        call_script(common_function, "query_opn_name", CHANNEL::none, false,
                    [&](const py::object& function) {
                        code = static_cast<unsigned int>(function(name).cast<int>());
                    });
        return code;
    }

    std::string get_username(const std::string& user) override {
        std::string username;
        call_script(
            common_function, "get_username", CHANNEL::none, false,
            [&](const py::object& function) { username = function(user).cast<std::string>(); });
        return username;
    }

    BUFFER generate_compact_cert(unsigned long first_number, unsigned long second_number,
                                 const std::vector<unsigned char>& content) override {
        BUFFER certificate;
        call_script(
            common_folder() + "/python/compact_cert_sign.pyc", "external_sign_function",
            CHANNEL::late, false, [&](const py::object& function) {
                certificate = copy_of(function(
                    static_cast<int>(first_number), static_cast<int>(second_number),
                    PGM_COMMON::convert_byte_array_to_standard_hex_string(
                        const_cast<unsigned char*>(content.data()), content.size(), true, false),
                    "", ""));
            });
        return certificate;
    }

    BUFFER modify_bitstream(const std::vector<unsigned char>& data) override {
        BUFFER changed;
        call_script(unshipped_folder() + "/python/pgm_internal_tool.pyc", "change_bitstream",
                    CHANNEL::early, false, [&](const py::object& function) {
                        changed = copy_of(function(py::bytearray(
                            reinterpret_cast<const char*>(data.data()), data.size())));
                    });
        return changed;
    }

    std::vector<unsigned char> get_chunks(const std::string& text,
                                          const std::string& kind) override {
        std::vector<unsigned char> data;
        const TEXT_MAP none;
        call_script(network_format, "get_bram_chunks", CHANNEL::late, true,
                    [&](const py::object& function) {
                        const py::list chunks = function(text, none, none, kind, none, none);
                        std::size_t size = 0;
                        for (const py::handle chunk : chunks) {
                            size += py::reinterpret_borrow<py::bytearray>(chunk).size();
                        }
                        data.reserve(size);
                        for (const py::handle chunk : chunks) {
                            append(data, py::reinterpret_borrow<py::bytearray>(chunk));
                        }
                    });
        return data;
    }

    std::vector<unsigned char> get_hash_and_size(const std::string& kind, const TEXT_MAP& map,
                                                 unsigned long& size) override {
        std::vector<unsigned char> hash;
        call_script(network_format, "get_bram_hash_and_size", CHANNEL::late, true,
                    [&](const py::object& function) {
                        const py::list answer = function("", map, map, kind, map, map);
                        append(hash, answer[0].cast<py::bytearray>());
                        size = static_cast<unsigned int>(answer[1].cast<int>());
                    });
        return hash;
    }

    bool generate_rim(const std::string& family, std::vector<std::string>& reasons) override {
        return call_script(
            common_folder() + "/python/rim_generator.pyc", "external_make_rim_function",
            CHANNEL::early, false,
            [&](const py::object& function) {
                function(rim_input, family, static_cast<int>(rim_number), rim_output);
            },
            &reasons);
    }

private:
    const std::string common_function = common_folder() + "/python/pgm_python_common_function.pyc";
    const std::string network_format = common_folder() + "nwfmt/network_format.py";
};

}  // namespace

std::unique_ptr<CONTESTANT> make_pybind11() {
    return std::unique_ptr<CONTESTANT>(new PYBIND11);
}
