# Makes GTest::gtest_main, from an installed package or, where a cross build has none, from the sources that Debian's
# libgtest-dev brings. Without either the target is missing.
find_package(GTest QUIET)
if(TARGET GTest::gtest_main OR NOT EXISTS /usr/src/googletest/CMakeLists.txt)
  return()
endif()
set(BUILD_GMOCK OFF)
set(INSTALL_GTEST OFF)
set(gtest_disable_pthreads ON) # the system's own locks
add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
if(NOT TARGET GTest::gtest_main)
  add_library(GTest::gtest_main ALIAS gtest_main)
endif()
