# Debian's library of GoogleTest is code of this machine. Its sources come in the same package; a build for another
# machine or word size compiles them. Sets GTest_FOUND as find_package would.
set(GTest_FOUND FALSE)
if(EXISTS /usr/src/googletest/googletest/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  target_compile_options(gtest PRIVATE -w)
  target_compile_options(gtest_main PRIVATE -w)
  set(GTest_FOUND TRUE)
endif()
