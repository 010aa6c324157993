# Debian's GoogleTest library is built for this machine only. Builds for another architecture or word size compile its
# sources, which are in the same package. Sets GTest_FOUND as find_package does.
set(GTest_FOUND FALSE)
if(EXISTS /usr/src/googletest/googletest/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  target_compile_options(gtest PRIVATE -w)
  target_compile_options(gtest_main PRIVATE -w)
  set(GTest_FOUND TRUE)
endif()
