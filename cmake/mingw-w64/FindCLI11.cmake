# CLI11 is headers only. They are copied to a folder of their own, because those around them are the
# build machine's.

find_path(CLI11_HEADERS CLI/CLI.hpp PATHS /usr/local/include /usr/include NO_CMAKE_FIND_ROOT_PATH)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(CLI11 REQUIRED_VARS CLI11_HEADERS)

if(CLI11_FOUND AND NOT TARGET CLI11::CLI11)
  file(COPY ${CLI11_HEADERS}/CLI DESTINATION ${PROJECT_BINARY_DIR}/cli11)
  add_library(CLI11::CLI11 INTERFACE IMPORTED)
  target_include_directories(CLI11::CLI11 INTERFACE ${PROJECT_BINARY_DIR}/cli11)
endif()
