# GoogleTest, built from its sources as the build machine has them.

find_path(GTest_SOURCES googletest/src/gtest-all.cc PATHS /usr/src/googletest
          NO_CMAKE_FIND_ROOT_PATH)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GTest REQUIRED_VARS GTest_SOURCES)

if(GTest_FOUND AND NOT TARGET GTest::gtest)
  set(BUILD_GMOCK OFF)
  set(INSTALL_GTEST OFF)
  set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)
  add_subdirectory(${GTest_SOURCES} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()
