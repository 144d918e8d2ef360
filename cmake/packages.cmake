# What cpack makes: a zip for Windows, for others an archive and, for what scripts/package configures,
# Debian packages.

set(CPACK_PACKAGE_VENDOR "pgm_python")
set(CPACK_VERBATIM_VARIABLES ON)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME pgm_python-${PROJECT_VERSION}-windows-x86_64)
  include(CPack)
  return()
endif()

option(PGM_PYTHON_DEBIAN_PACKAGES "Install what Debian packages hold besides, and make them with cpack" OFF)

set(CPACK_GENERATOR TGZ)
string(TOLOWER ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR} platform)
set(CPACK_PACKAGE_FILE_NAME pgm_python-${PGM_PYTHON_DESCRIBED_VERSION}-${platform})
set(CPACK_STRIP_FILES ON)

if(PGM_PYTHON_DEBIAN_PACKAGES)
  include(${CMAKE_CURRENT_LIST_DIR}/debian_packages.cmake)
endif()
include(CPack)
