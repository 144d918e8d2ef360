# What the project's own targets have in common.

add_library(pgm_python_options INTERFACE)
target_include_directories(pgm_python_options INTERFACE ${PROJECT_SOURCE_DIR})
if(MSVC)
  # An exported class with a text in it (4251) needs the same runtime library on both sides, anyway.
  target_compile_options(
    pgm_python_options INTERFACE /W4 /wd4251 /utf-8 /permissive-
                                 $<$<BOOL:${PGM_PYTHON_WARNINGS_AS_ERRORS}>:/WX>)
  target_compile_definitions(pgm_python_options INTERFACE _CRT_SECURE_NO_WARNINGS)
else()
  target_compile_options(
    pgm_python_options
    INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
              $<$<BOOL:${PGM_PYTHON_WARNINGS_AS_ERRORS}>:-Werror>)
endif()

# What needs Python.h.
add_library(pgm_python_python INTERFACE)
target_include_directories(pgm_python_python SYSTEM INTERFACE ${Python3_INCLUDE_DIRS})
target_link_libraries(pgm_python_python INTERFACE ${Python3_LIBRARIES})

# What serialises. The headers are copied to a folder of their own, because those around them may be
# another system's.
file(COPY ${PGM_PYTHON_CEREAL_HEADERS}/cereal DESTINATION ${PROJECT_BINARY_DIR}/cereal)
add_library(pgm_python_cereal INTERFACE)
target_include_directories(pgm_python_cereal SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/cereal)

if(WIN32)
  set(PGM_PYTHON_PLATFORM windows)
  set(CMAKE_SHARED_LIBRARY_PREFIX "")
  target_compile_definitions(pgm_python_options INTERFACE NOMINMAX WIN32_LEAN_AND_MEAN)
  if(MINGW)
    include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64/runtime.cmake)
  endif()
else()
  set(PGM_PYTHON_PLATFORM posix)
endif()

# A shared library of the suite, exported, with the headers that a host may include installed.
#
# pgm_python_library(NAME SOURCES ... LINKS ... [HEADERS ...])
function(pgm_python_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINKS;HEADERS")
  string(TOUPPER ${name} upper_name)
  add_library(${name} SHARED ${arg_SOURCES})
  add_library(pgm_python::${name} ALIAS ${name})
  target_compile_definitions(${name} PRIVATE ${upper_name}_BUILD)
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                               $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:pgm_python_options> ${arg_LINKS})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${name} EXPORT pgm_python_targets
          LIBRARY NAMELINK_COMPONENT development
          ARCHIVE COMPONENT development)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  install(FILES ${arg_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT development)
endfunction()
