# Toolchain: 64-bit Windows programs built by MinGW-w64 on Linux and run there under Wine.
#
#   PGM_PYTHON_WINDOWS_PYTHON   a folder with a Python for Windows (docs/windows.md); without it what
#                               starts an interpreter can be built but not run

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The find modules there stand in for packages that the build machine has for itself only.
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/mingw-w64)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PGM_PYTHON_WINDOWS_PYTHON)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/mingw-w64/run-under-wine)
if(PGM_PYTHON_WINDOWS_PYTHON)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR ${PGM_PYTHON_WINDOWS_PYTHON})
else()
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -)
endif()
