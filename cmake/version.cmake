# The version that the programs and packages tell: what `git describe` says of a checkout, without the
# "v" of the tag, and the project's version elsewhere. Also a script that writes it into a header, at
# every build:
#
#     cmake -DSOURCES=FOLDER -DVERSION=PROJECT-VERSION -DHEADER=FILE -P version.cmake

# Sets a variable to the version of the sources in a folder.
function(pgm_python_describe_version result sources project_version)
  set(${result} ${project_version} PARENT_SCOPE)
  find_program(PGM_PYTHON_GIT git)
  if(NOT PGM_PYTHON_GIT)
    return()
  endif()
  # Sources inside another project's checkout have that project's tags about them.
  execute_process(COMMAND ${PGM_PYTHON_GIT} -C ${sources} rev-parse --show-toplevel
                  OUTPUT_VARIABLE checkout OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  file(REAL_PATH ${sources} sources)
  if(NOT checkout STREQUAL sources)
    return()
  endif()
  execute_process(COMMAND ${PGM_PYTHON_GIT} -C ${sources} describe --tags --match v[0-9]*.[0-9]*.[0-9]*
                  OUTPUT_VARIABLE described OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(described MATCHES "^v([0-9].*)$")
    set(${result} ${CMAKE_MATCH_1} PARENT_SCOPE)
  endif()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE)
  pgm_python_describe_version(described ${SOURCES} ${VERSION})
  # A header that says the same is left alone, so that nothing is compiled again.
  file(
    CONFIGURE
    OUTPUT ${HEADER}
    CONTENT [[// The version of these sources. Made by cmake/version.cmake.

#define PGM_PYTHON_VERSION "@described@"
]]
    @ONLY)
  return()
endif()

pgm_python_describe_version(PGM_PYTHON_DESCRIBED_VERSION ${PROJECT_SOURCE_DIR} ${PROJECT_VERSION})

# "pgm_python_version.h" for the targets that link this.
set(version_header ${PROJECT_BINARY_DIR}/generated/pgm_python_version.h)
add_custom_target(
  pgm_python_write_version ALL
  COMMAND
    ${CMAKE_COMMAND} -DSOURCES=${PROJECT_SOURCE_DIR} -DVERSION=${PROJECT_VERSION}
    -DHEADER=${version_header} -P ${CMAKE_CURRENT_LIST_DIR}/version.cmake
  BYPRODUCTS ${version_header}
  COMMENT ""
  VERBATIM)
add_library(pgm_python_version INTERFACE)
target_include_directories(pgm_python_version INTERFACE ${PROJECT_BINARY_DIR}/generated)
add_dependencies(pgm_python_version pgm_python_write_version)
