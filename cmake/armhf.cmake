# Cross-building for 32-bit Arm with Debian's compiler; what is built runs under qemu-user (see cross.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(SA_ARM_ROOT /usr/arm-linux-gnueabihf)
set(SA_ARM_EMULATOR qemu-arm)
# A backtrace from code without these tables is empty, as one without the unwinder is (pub/util/worker.cpp).
set(CMAKE_CXX_FLAGS_INIT -funwind-tables)
