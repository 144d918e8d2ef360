#include "zel/zel_mem/zel_mem.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

struct LOADED_MODULES {
    std::mutex mutex;
    std::vector<std::string> names;
};

// Never destroyed: modules are unloaded in an order that nobody here decides.
LOADED_MODULES& loaded_modules() {
    static LOADED_MODULES* const modules = new LOADED_MODULES;
    return *modules;
}

}  // namespace

std::string MEM_DETAIL::stl_raw_sprintf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text;
    try {
        text = stl_raw_vsprintf(format, arguments);
    } catch (...) {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
    return text;
}

std::string MEM_DETAIL::stl_raw_vsprintf(const char* format, std::va_list arguments) {
    std::va_list measured;
    va_copy(measured, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_copy has set it
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length <= 0) {
        return std::string();
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::va_list written;
    va_copy(written, arguments);
    std::vsnprintf(&text[0], text.size() + 1, format, written);
    va_end(written);
    return text;
}

void MEM_DETAIL::overwrite(void* memory, std::size_t size) noexcept {
    volatile unsigned char* byte = static_cast<volatile unsigned char*>(memory);
    while (size-- > 0) {
        *byte++ = 0;
    }
}

MEM_INITIALIZER::MEM_INITIALIZER(const char* module_name) : m_module_name(module_name) {
    LOADED_MODULES& modules = loaded_modules();
    const std::lock_guard<std::mutex> lock(modules.mutex);
    modules.names.emplace_back(module_name);
}

MEM_INITIALIZER::~MEM_INITIALIZER() {
    LOADED_MODULES& modules = loaded_modules();
    const std::lock_guard<std::mutex> lock(modules.mutex);
    const auto found = std::find(modules.names.begin(), modules.names.end(), m_module_name);
    if (found != modules.names.end()) {
        modules.names.erase(found);
    }
}

bool MEM_INITIALIZER::is_loaded(const std::string& module_name) {
    LOADED_MODULES& modules = loaded_modules();
    const std::lock_guard<std::mutex> lock(modules.mutex);
    return std::find(modules.names.begin(), modules.names.end(), module_name) !=
           modules.names.end();
}
