# Cross-building for 32-bit Arm with Debian's compiler; what is built runs under qemu-user (see cross.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(SA_ARM_ROOT /usr/arm-linux-gnueabihf)
set(SA_ARM_EMULATOR qemu-arm)
