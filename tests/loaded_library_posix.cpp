#include <dlfcn.h>

#include <cstdio>

#include "tests/loaded_library.h"

LOADED_LIBRARY::LOADED_LIBRARY(const char* file) : m_handle(::dlopen(file, RTLD_NOW | RTLD_LOCAL)) {
    if (m_handle == nullptr) {
        std::fprintf(stderr, "%s\n", ::dlerror());
    }
}

LOADED_LIBRARY::~LOADED_LIBRARY() {
    if (m_handle != nullptr) {
        ::dlclose(m_handle);
    }
}
