# A Python for Windows.
#
# With PGM_PYTHON_WINDOWS_PYTHON: its headers, and an import library made from its DLL.
#
# Else the build machine's own headers, with a configuration for Windows, and an import library made
# from a list. A library of the same name that holds nothing lets programs start; what starts an
# interpreter with it ends with exit status 77.
#
# Sets Python3_INCLUDE_DIRS, Python3_LIBRARIES and Python3_VERSION; PGM_PYTHON_INTERPRETER, the
# command that runs a script with the Python found, empty when there is none; and
# PGM_PYTHON_STAND_IN when there is no interpreter.

set(work ${PROJECT_BINARY_DIR}/windows-python)
file(MAKE_DIRECTORY ${work})
find_program(DLLTOOL NAMES x86_64-w64-mingw32-dlltool REQUIRED)

function(pgm_python_read_version header)
  file(STRINGS ${header} row REGEX "^#define PY_VERSION ")
  string(REGEX MATCH "([0-9]+)\\.([0-9]+)\\.[0-9]+" version "${row}")
  set(Python3_VERSION ${version} PARENT_SCOPE)
  set(name python${CMAKE_MATCH_1}${CMAKE_MATCH_2} PARENT_SCOPE)
endfunction()

if(PGM_PYTHON_WINDOWS_PYTHON)
  set(Python3_INCLUDE_DIRS ${PGM_PYTHON_WINDOWS_PYTHON}/include)
  if(EXISTS ${Python3_INCLUDE_DIRS}/patchlevel.h)
    pgm_python_read_version(${Python3_INCLUDE_DIRS}/patchlevel.h)
    set(dll ${PGM_PYTHON_WINDOWS_PYTHON}/${name}.dll)
  endif()
  if(NOT EXISTS "${dll}" OR NOT EXISTS ${PGM_PYTHON_WINDOWS_PYTHON}/python.exe)
    message(FATAL_ERROR "${PGM_PYTHON_WINDOWS_PYTHON} is no Python for Windows: it should hold "
                        "include/patchlevel.h, the DLL of that version and python.exe")
  endif()
  find_program(GENDEF gendef REQUIRED)
  execute_process(COMMAND ${GENDEF} ${dll} WORKING_DIRECTORY ${work} OUTPUT_QUIET ERROR_QUIET
                          COMMAND_ERROR_IS_FATAL ANY)
  set(PGM_PYTHON_STAND_IN OFF)
  set(PGM_PYTHON_INTERPRETER ${CMAKE_CROSSCOMPILING_EMULATOR}
                             ${PGM_PYTHON_WINDOWS_PYTHON}/python.exe)
else()
  file(GLOB candidates /usr/include/python3.[0-9]*)
  list(SORT candidates COMPARE NATURAL)
  list(POP_BACK candidates headers)
  if(NOT EXISTS "${headers}/Python.h")
    message(FATAL_ERROR "There are no Python headers in /usr/include (python3-dev)")
  endif()
  file(COPY ${headers}/ DESTINATION ${work}/include PATTERN pyconfig.h EXCLUDE)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/windows-python/pyconfig.h ${work}/include COPYONLY)
  set(Python3_INCLUDE_DIRS ${work}/include)
  pgm_python_read_version(${headers}/patchlevel.h)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/windows-python/python.def.in ${work}/${name}.def)
  set(PGM_PYTHON_STAND_IN ON)
  set(PGM_PYTHON_INTERPRETER "")
endif()

set(Python3_LIBRARIES ${work}/lib${name}.a)
execute_process(COMMAND ${DLLTOOL} --dllname ${name}.dll --input-def ${work}/${name}.def
                        --output-lib ${Python3_LIBRARIES}
                COMMAND_ERROR_IS_FATAL ANY)

if(PGM_PYTHON_STAND_IN)
  add_library(pgm_python_stand_in SHARED ${PROJECT_SOURCE_DIR}/cmake/windows-python/stand_in.cpp
                                         ${work}/${name}.def)
  set_target_properties(pgm_python_stand_in PROPERTIES OUTPUT_NAME ${name} PREFIX "")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Python3 REQUIRED_VARS Python3_LIBRARIES Python3_INCLUDE_DIRS
                                  VERSION_VAR Python3_VERSION)
set(Python3_Interpreter_FOUND ON)
set(Python3_Development.Embed_FOUND ON)
