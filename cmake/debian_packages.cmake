# Debian packages: the runtime, what programs are developed with, and the programs with the example
# installation.

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# A version of between two releases, such as 1.0.0-30-g3e40d23, has no revision of a package in it.
string(REGEX REPLACE "^([^-]+)-([0-9]+)-(g[0-9a-f]+)$" "\\1+\\2.\\3" debian_version
                     ${PGM_PYTHON_DESCRIBED_VERSION})
set(CPACK_DEBIAN_PACKAGE_VERSION ${debian_version})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "pgm_python maintainers <${PGM_PYTHON_MAINTAINER_ADDRESS}>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "calls of Python scripts from native programs")
set(description
    "A C++17 library through which the native programs of a device-programming
tool suite call functions in Python scripts. Each operation takes native
values, runs one function of one script in an embedded interpreter, and gives
the answer back as a native value.")

set(runtime_package libpgm-python${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${description}

This package holds the shared libraries.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libpgm-python-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${debian_version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "pgm-python-tools, cmake, pkgconf | pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${description}

This package holds the headers, the files for CMake and pkg-config, and the
list of what the leak sanitizer need not tell of.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME pgm-python-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The checker of scripts is started by the interpreter itself.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${runtime_package} (= ${debian_version}), openssl, python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}"
)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "git")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "mariadb-client")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "${description}

This package holds programs that call the operations from a command line,
and an example installation of scripts.")

# What root's calls leave beside the scripts goes with the package.
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/prerm)

# What Debian wants of each package: who may use it, and what has changed.
set(documents ${PROJECT_BINARY_DIR}/debian)
find_program(PGM_PYTHON_GZIP gzip REQUIRED)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(
  CONFIGURE
  OUTPUT ${documents}/changelog
  CONTENT
    [[pgm-python (@debian_version@) unstable; urgency=medium

  * CHANGELOG.md tells what has changed.

 -- @CPACK_DEBIAN_PACKAGE_MAINTAINER@  @date@
]]
  @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${documents}/CHANGELOG.md COPYONLY)
foreach(name changelog CHANGELOG.md)
  execute_process(COMMAND ${PGM_PYTHON_GZIP} -9 -n -f -k ${documents}/${name}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper_name)
  set(package ${CPACK_DEBIAN_${upper_name}_PACKAGE_NAME})
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${documents}/changelog.gz
                ${documents}/CHANGELOG.md.gz
          DESTINATION share/doc/${package} COMPONENT ${component})
  if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/debian/${package}.overrides)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/${package}.overrides
            DESTINATION share/lintian/overrides RENAME ${package} COMPONENT ${component})
  endif()
endforeach()

# What is installed before this is there: Debian has man pages compressed.
install(
  CODE [[
    file(GLOB_RECURSE pages "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/share/man/*.[1-9]")
    foreach(page IN LISTS pages)
      execute_process(COMMAND gzip -9 -n -f ${page} COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
  ]]
  COMPONENT tools)
