# Cross build for 64-bit Arm with Debian's compiler. The programs run under qemu-user (see cross.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(SA_ARM_ROOT /usr/aarch64-linux-gnu)
set(SA_ARM_EMULATOR qemu-aarch64)
