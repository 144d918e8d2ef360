# What other projects find the installed library by: CMake's package and pkg-config's file; and what
# goes with it.

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

include(CMakePackageConfigHelpers)
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/pgm_python)
set(PGM_PYTHON_COMMON_PROGRAMMER_DIR ${PGM_PYTHON_SCRIPTS_PREFIX}common/programmer)
set(PGM_PYTHON_UNSHIPPED_PROGRAMMER_DIR ${PGM_PYTHON_SCRIPTS_PREFIX}unshipped/programmer)
install(EXPORT pgm_python_targets NAMESPACE pgm_python:: DESTINATION ${package_directory})
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/pgm_python-config.cmake.in ${PROJECT_BINARY_DIR}/pgm_python-config.cmake
  INSTALL_DESTINATION ${package_directory}
  PATH_VARS PGM_PYTHON_COMMON_PROGRAMMER_DIR PGM_PYTHON_UNSHIPPED_PROGRAMMER_DIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pgm_python-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pgm_python-config.cmake
              ${PROJECT_BINARY_DIR}/pgm_python-config-version.cmake
        DESTINATION ${package_directory})

# The file stands in LIBDIR/pkgconfig and finds the rest from there, wherever the installation is moved.
file(RELATIVE_PATH prefix_of_pkgconfig /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" prefix_of_pkgconfig ${prefix_of_pkgconfig})
configure_file(${CMAKE_CURRENT_LIST_DIR}/pgm_python.pc.in ${PROJECT_BINARY_DIR}/pgm_python.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pgm_python.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(NOT WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/tests/sanitizers/lsan.supp
          DESTINATION ${CMAKE_INSTALL_DATADIR}/pgm_python)
endif()
