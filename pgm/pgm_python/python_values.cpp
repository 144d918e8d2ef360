#include "pgm/pgm_python/python_values.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

std::string hex_text(const unsigned char* bytes, std::size_t size) {
    return PGM_COMMON::convert_byte_array_to_standard_hex_string(
        const_cast<unsigned char*>(bytes), static_cast<unsigned long>(size), true, false);
}

// Whether the suite's text of bytes is their digits in order and nothing else, so that the texts of
// two blocks one after the other are the text of both.
bool hex_text_is_digits_in_order() {
    constexpr std::array<unsigned char, 16> bytes = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB,
                                                     0xCD, 0xEF, 0x10, 0x32, 0x54, 0x76,
                                                     0x98, 0xBA, 0xDC, 0xFE};
    return hex_text(bytes.data(), bytes.size()) == "0123456789ABCDEF1032547698BADCFE";
}

// A str of the whole text of bytes, whatever form it has.
PyObject* make_hex_in_one(const unsigned char* bytes, std::size_t size) {
    const std::string text = hex_text(bytes, size);
    return PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
}

// The str is filled block by block: no second copy of the whole text is made on the way.
PyObject* make_hex(const unsigned char* bytes, std::size_t size) {
    constexpr std::size_t block = 0x4000;
    if (!hex_text_is_digits_in_order()) {
        return make_hex_in_one(bytes, size);
    }
    PY_REFERENCE text = PY_REFERENCE::owned(PyUnicode_New(static_cast<Py_ssize_t>(2 * size), 0x7F));
    if (!text) {
        return nullptr;
    }
    Py_UCS1* const digits = PyUnicode_1BYTE_DATA(text.get());
    for (std::size_t at = 0; at < size; at += block) {
        const std::size_t count = std::min(block, size - at);
        const std::string part = hex_text(bytes + at, count);
        if (part.size() != 2 * count) {
            return make_hex_in_one(bytes, size);
        }
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the str has its end already
        std::memcpy(digits + 2 * at, part.data(), part.size());
    }
    return text.release();
}

PyObject* make_bytearray(const unsigned char* bytes, std::size_t size) {
    PyObject* const array = PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(bytes),
                                                          static_cast<Py_ssize_t>(size));
    if (bytes == nullptr && array != nullptr) {
        overwrite_bytearray(array);
    }
    return array;
}

PyObject* make_dict(const std::map<std::string, std::string>& map, INTERPRETER_SESSION& session) {
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
}

// The text at a pointer of the C interface; a null pointer is an answer of the wrong type.
std::string text_or_empty(const char* text) {
    PyErr_Clear();
    return text == nullptr ? std::string() : std::string(text);
}

std::string text_of_str(PyObject* object) {
    return text_or_empty(PyUnicode_AsUTF8(object));
}

std::string text_of_str_or_bytes(PyObject* object) {
    return Py_TYPE(object) == &PyUnicode_Type ? text_of_str(object)
                                              : text_or_empty(PyBytes_AsString(object));
}

// The bytes of a bytearray, which stay the object's; of anything else null and 0.
struct BYTES {
    const unsigned char* data;
    std::size_t size;  // cut to 32 bits
};

bool is_bytearray(PyObject* object) {
    return object != nullptr && PyByteArray_Check(object) != 0;
}

BYTES bytes_of_bytearray(PyObject* object) {
    if (!is_bytearray(object)) {
        return {nullptr, 0};
    }
    return {reinterpret_cast<const unsigned char*>(PyByteArray_AS_STRING(object)),
            static_cast<std::uint32_t>(PyByteArray_GET_SIZE(object))};
}

bool take_chunks(const ANSWER_FORM& form, PyObject* result, ANSWER& answer) {
    if (PyList_Check(result) == 0) {
        return true;
    }
    const Py_ssize_t count = PyList_GET_SIZE(result);
    std::size_t size = 0;
    for (Py_ssize_t index = 0; index < count; ++index) {
        PyObject* const chunk = PyList_GET_ITEM(result, index);
        require(chunk != nullptr, form.check);
        if (!is_bytearray(chunk)) {
            return false;
        }
        size += bytes_of_bytearray(chunk).size;
    }
    answer.chunks.reserve(size);
    for (Py_ssize_t index = 0; index < count; ++index) {
        const BYTES bytes = bytes_of_bytearray(PyList_GET_ITEM(result, index));
        answer.chunks.insert(answer.chunks.end(), bytes.data, bytes.data + bytes.size);
    }
    return true;
}

bool take_items(const ANSWER_FORM& form, PyObject* result, const TAKE_BYTES& take_bytes,
                ANSWER& answer) {
    require(PyList_Check(result) != 0 &&
                PyList_GET_SIZE(result) == static_cast<Py_ssize_t>(form.item_count),
            form.check);
    // Owned, because reading a number may run code of the script, which may change the list.
    std::array<PY_REFERENCE, 3> numbers;
    for (std::size_t index = 0; index < form.item_count; ++index) {
        const ANSWER_FORM::ITEM& item = form.items[index];
        PyObject* const object = PyList_GET_ITEM(result, static_cast<Py_ssize_t>(index));
        if (item.there.text != nullptr) {
            require(object != nullptr, item.there);
        }
        if (item.kind == ANSWER_FORM::KIND::number) {
            numbers[index] = PY_REFERENCE::borrowed(object);
            continue;
        }
        if (item.fails_the_call && !is_bytearray(object)) {
            return false;
        }
        const BYTES bytes = bytes_of_bytearray(object);
        answer.bytes = take_bytes(bytes.data, bytes.size);
    }
    for (const PY_REFERENCE& number : numbers) {
        if (number) {
            answer.numbers.push_back(number_of_int(number.get()));
        }
    }
    return true;
}

bool take_filled_in(const ANSWER_FORM& form, PyObject* result, PyObject* filled_in,
                    ANSWER& answer) {
    require(PyBool_Check(result) != 0, form.check);
    require(result == Py_True, form.second_check);
    const BYTES bytes = bytes_of_bytearray(filled_in);
    answer.bytes = OWNED_BYTES::copy_of(bytes.data, bytes.size, true);
    overwrite_bytearray(filled_in);
    return true;
}

}  // namespace

PyObject* make_object(const ARGUMENT& argument, INTERPRETER_SESSION& session) {
    switch (argument.kind) {
        case ARGUMENT::KIND::text:
            return PyUnicode_FromString(argument.text->c_str());
        case ARGUMENT::KIND::number:
            return PyLong_FromLong(argument.number);
        case ARGUMENT::KIND::hex:
            return make_hex(argument.bytes, argument.size);
        case ARGUMENT::KIND::bytes:
        case ARGUMENT::KIND::filled_in:
            return make_bytearray(argument.bytes, argument.size);
        case ARGUMENT::KIND::flag:
            return argument.flag ? Py_True : Py_False;
        case ARGUMENT::KIND::map:
            return make_dict(*argument.map, session);
    }
    return nullptr;
}

bool take_answer(const ANSWER_FORM& form, PyObject* result, PyObject* filled_in,
                 const TAKE_BYTES& take_bytes, ANSWER& answer) {
    switch (form.kind) {
        case ANSWER_FORM::KIND::ignored:
            return true;
        case ANSWER_FORM::KIND::text:
            answer.text = text_of_str(result);
            return true;
        case ANSWER_FORM::KIND::text_or_bytes:
            answer.text = text_of_str_or_bytes(result);
            return true;
        case ANSWER_FORM::KIND::number:
            answer.numbers.push_back(number_of_int(result));
            return true;
        case ANSWER_FORM::KIND::bytes: {
            const BYTES bytes = bytes_of_bytearray(result);
            answer.bytes = take_bytes(bytes.data, bytes.size);
            return true;
        }
        case ANSWER_FORM::KIND::chunks:
            return take_chunks(form, result, answer);
        case ANSWER_FORM::KIND::items:
            return take_items(form, result, take_bytes, answer);
        case ANSWER_FORM::KIND::filled_in:
            return take_filled_in(form, result, filled_in, answer);
    }
    return false;
}

unsigned long number_of_int(PyObject* object) {
    const long number = PyLong_AsLong(object);
    PyErr_Clear();
    const bool fits = number >= INT32_MIN && number <= INT32_MAX;
    return fits ? static_cast<std::uint32_t>(number) : 0xFFFFFFFFUL;
}

void overwrite_bytearray(PyObject* object) {
    MEM_DETAIL::overwrite(PyByteArray_AsString(object),
                          static_cast<std::size_t>(PyByteArray_Size(object)));
}
