# Cross build for 32-bit Arm with Debian's compiler. The programs run under qemu-user (see cross.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(SA_ARM_ROOT /usr/arm-linux-gnueabihf)
set(SA_ARM_EMULATOR qemu-arm)
# Without these tables a backtrace is empty, and pub/util/worker.cpp would take the unwinder for missing.
set(CMAKE_CXX_FLAGS_INIT -funwind-tables)
