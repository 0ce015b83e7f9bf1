# Defines the target GTest::gtest_main: from an installed package, or else, for a cross build, from the sources in Debian's
# libgtest-dev. Without both the target is not defined.
find_package(GTest QUIET)
if(TARGET GTest::gtest_main OR NOT EXISTS /usr/src/googletest/CMakeLists.txt)
  return()
endif()
set(BUILD_GMOCK OFF)
set(INSTALL_GTEST OFF)
set(gtest_disable_pthreads ON) # use the locks of Windows
add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
if(NOT TARGET GTest::gtest_main)
  add_library(GTest::gtest_main ALIAS gtest_main)
endif()
