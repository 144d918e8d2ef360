#include <windows.h>

#include "tests/loaded_library.h"

LOADED_LIBRARY::LOADED_LIBRARY(const char* file) : m_handle(::LoadLibraryA(file)) {}

LOADED_LIBRARY::~LOADED_LIBRARY() {
    if (m_handle != nullptr) {
        ::FreeLibrary(static_cast<HMODULE>(m_handle));
    }
}
