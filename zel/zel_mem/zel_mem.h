// Memory and formatting services of the suite.
//
// Every operation here may be called from any thread.

#ifndef ZEL_ZEL_MEM_ZEL_MEM_H
#define ZEL_ZEL_MEM_ZEL_MEM_H

#include <cstdarg>
#include <cstddef>
#include <string>

#include "zel/zel_mem/zel_mem_export.h"

#if defined(__GNUC__)
#define ZEL_PRINTF_LIKE(format_index, first_argument) \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define ZEL_PRINTF_LIKE(format_index, first_argument)
#endif

// Formatting on top of the C library's printf family.
class MEM_DETAIL {
public:
    // Returns `format` filled with the arguments that follow it, as printf fills it. The text has
    // any length. Returns an empty text when the C library rejects the format. Throws
    // std::bad_alloc when memory runs out.
    ZEL_MEM_API static std::string stl_raw_sprintf(const char* format, ...) ZEL_PRINTF_LIKE(1, 2);

    // The same for arguments that a variadic function has received. `arguments` is left as
    // va_copy found it: the caller still ends it.
    ZEL_MEM_API static std::string stl_raw_vsprintf(const char* format, std::va_list arguments)
        ZEL_PRINTF_LIKE(1, 0);

    // Overwrites `size` bytes at `memory` with zeros in a way that the compiler keeps even when
    // nothing reads them afterwards. For secrets, before their memory is released. A null `memory`
    // is accepted with size 0.
    ZEL_MEM_API static void overwrite(void* memory, std::size_t size) noexcept;
};

// Marks the life of a module in the process: constructed when the module is loaded, destroyed when
// it is unloaded. A module keeps one at file scope.
class MEM_INITIALIZER {
public:
    // Enters the module called `module_name` (a text that outlives the object; not copied).
    ZEL_MEM_API explicit MEM_INITIALIZER(const char* module_name);
    // Takes the module out again.
    ZEL_MEM_API ~MEM_INITIALIZER();

    MEM_INITIALIZER(const MEM_INITIALIZER&) = delete;
    MEM_INITIALIZER& operator=(const MEM_INITIALIZER&) = delete;

    // Tells whether a module of this name is loaded in the process now.
    ZEL_MEM_API static bool is_loaded(const std::string& module_name);

private:
    const char* m_module_name;
};

#endif
