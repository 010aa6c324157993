# Debian's library of GoogleTest is 64-bit code. Its sources come in the same package; a 32-bit build compiles them.
# Sets GTest_FOUND as find_package would.
set(GTest_FOUND FALSE)
if(EXISTS /usr/src/googletest/googletest/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  target_compile_options(gtest PRIVATE -w)
  target_compile_options(gtest_main PRIVATE -w)
  set(GTest_FOUND TRUE)
endif()
