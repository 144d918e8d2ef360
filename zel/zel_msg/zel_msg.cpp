#include "zel/zel_msg/zel_msg.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "zel/zel_mem/zel_mem.h"

namespace {

std::atomic<MSG_RECEIVER*> installed_receiver{nullptr};

// One write a report, so that reports of several threads do not mix within a line.
void write_to_standard_error(std::string text) {
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void deliver(MSG_RECEIVER::INTERNAL_ERROR error) {
    if (MSG_RECEIVER* const receiver = installed_receiver.load()) {
        receiver->internal_error(error);
        return;
    }
    write_to_standard_error(MSG_RECEIVER::to_text(error));
    std::abort();
}

// Replaces "%N!s!" by argument N in one pass over the format, so that arguments are never read as
// a format.
std::string fill(const std::string& format, const std::vector<std::string>& arguments) {
    std::string text;
    std::size_t at = 0;
    while (at < format.size()) {
        const std::size_t percent = format.find('%', at);
        text.append(format, at, percent - at);
        if (percent == std::string::npos) {
            break;
        }
        std::size_t digit = percent + 1;
        std::size_t number = 0;
        while (digit < format.size() && format[digit] >= '0' && format[digit] <= '9' &&
               number <= arguments.size()) {
            number = number * 10 + static_cast<std::size_t>(format[digit] - '0');
            ++digit;
        }
        if (number >= 1 && number <= arguments.size() && format.compare(digit, 3, "!s!") == 0) {
            text += arguments[number - 1];
            at = digit + 3;
        } else {
            text += '%';
            at = percent + 1;
        }
    }
    return text;
}

struct REGISTERED_ID {
    unsigned long id;
    int type;
    const MSG_ID_REGISTRAR* registrar;
};

struct REGISTERED_IDS {
    std::mutex mutex;
    std::vector<REGISTERED_ID> ids;
};

// Never destroyed: modules that registered numbers may be unloaded after this library's own
// objects are gone.
REGISTERED_IDS& registered_ids() {
    static REGISTERED_IDS* const ids = new REGISTERED_IDS;
    return *ids;
}

}  // namespace

MSG_RECEIVER::~MSG_RECEIVER() = default;

MSG_RECEIVER* MSG_RECEIVER::set(MSG_RECEIVER* receiver) noexcept {
    return installed_receiver.exchange(receiver);
}

std::string MSG_RECEIVER::to_text(const INTERNAL_ERROR& error) {
    return "internal error: " + error.text + " [" + error.module + ", " + error.source + ", line " +
           std::to_string(error.line) + "]";
}

void msg_line(int type, const std::string& text) {
    if (MSG_RECEIVER* const receiver = installed_receiver.load()) {
        receiver->line(type, text);
        return;
    }
    write_to_standard_error(type == MSG_TYPE_ERROR ? "error: " + text : text);
}

PDB_OBJECT_BASE::~PDB_OBJECT_BASE() = default;

void MSG_BASE::fill_args(const std::string& literal, const std::vector<std::string>& arguments) {
    const std::size_t slash = literal.rfind('/');
    m_text = fill(literal.substr(0, slash), arguments);
    m_name = slash == std::string::npos ? std::string() : literal.substr(slash + 1);
}

void MSG_POST::post() const {
    if (MSG_RECEIVER* const receiver = installed_receiver.load()) {
        receiver->post(id(), text());
        return;
    }
    write_to_standard_error("error " + std::to_string(id()) + ": " + text());
}

MSG_E::MSG_E(MSG_REPORT* /*report*/) {}

MSG_ID_REGISTRAR::MSG_ID_REGISTRAR(const unsigned long* ids, const int* types,
                                   unsigned long count) {
    REGISTERED_IDS& all = registered_ids();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (unsigned long index = 0; index < count; ++index) {
        all.ids.push_back({ids[index], types[index], this});
    }
}

MSG_ID_REGISTRAR::~MSG_ID_REGISTRAR() {
    REGISTERED_IDS& all = registered_ids();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.ids.erase(
        std::remove_if(all.ids.begin(), all.ids.end(),
                       [this](const REGISTERED_ID& row) { return row.registrar == this; }),
        all.ids.end());
}

std::vector<unsigned long> MSG_ID_REGISTRAR::registered() {
    REGISTERED_IDS& all = registered_ids();
    const std::lock_guard<std::mutex> lock(all.mutex);
    std::vector<unsigned long> ids;
    for (const auto& row : all.ids) {
        ids.push_back(row.id);
    }
    return ids;
}

int MSG_ID_REGISTRAR::type_of(unsigned long id) {
    REGISTERED_IDS& all = registered_ids();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (const auto& row : all.ids) {
        if (row.id == id) {
            return row.type;
        }
    }
    return -1;
}

void MSG_INTERNAL_ERROR::report(const char* expression, const char* module, const char* source,
                                int line) {
    deliver({expression, module, source, line});
}

void MSG_INTERNAL_ERROR::report_varg(const char* module, const char* source, int line,
                                     const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text;
    try {
        text = MEM_DETAIL::stl_raw_vsprintf(format, arguments);
    } catch (...) {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
    deliver({text, module, source, line});
}
