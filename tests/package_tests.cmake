# Tests of what is built and installed, each a script.

if(WIN32)
  foreach(name package_test subproject_test without_tools_test interface_test version_test)
    pgm_python_skipped_test(${name} "looks at a build for the other platform; zip_test stands for it")
  endforeach()
  return()
endif()

# An installation, used as README.md says.
if(PGM_PYTHON_BUILD_TOOLS)
  add_test(NAME package_test
           COMMAND ${own_network} ${CMAKE_CURRENT_SOURCE_DIR}/package_test ${CMAKE_COMMAND} ${CMAKE_GENERATOR}
                   ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER} "${CMAKE_CXX_FLAGS}" ${CMAKE_NM}
                   ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR})
  set_tests_properties(package_test PROPERTIES ${lock} TIMEOUT 1800)
else()
  pgm_python_skipped_test(package_test "needs the programs (PGM_PYTHON_BUILD_TOOLS)")
endif()

# The library as a part of another project, and without its programs: each is a build of its own, left
# to those who run all tests.
get_filename_component(python_root ${PGM_PYTHON_INTERPRETER}/../.. ABSOLUTE)
foreach(name subproject_test without_tools_test)
  add_test(
    NAME ${name}
    COMMAND
      ${own_network} ${CMAKE_CURRENT_SOURCE_DIR}/${name} ${CMAKE_COMMAND} ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}
      -G ${CMAKE_GENERATOR} -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
      "-DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS}"
      -DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER} -DPython3_ROOT_DIR=${python_root}
      -DPython3_EXECUTABLE=${PGM_PYTHON_INTERPRETER} -DPython3_FIND_VIRTUALENV=NEVER)
  set_tests_properties(${name} PROPERTIES ${lock} TIMEOUT 1800 LABELS endurance)
endforeach()

# What the libraries export and the public headers declare, beside the list of it.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize|--coverage")
  pgm_python_skipped_test(interface_test "the libraries export what the compiler put in")
else()
  add_test(NAME interface_test COMMAND ${PROJECT_SOURCE_DIR}/scripts/interface --check
                                       ${PROJECT_BINARY_DIR})
endif()

# The version that programs and packages tell.
add_test(NAME version_test COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/version_test ${CMAKE_COMMAND}
                                   ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${PROJECT_VERSION})
