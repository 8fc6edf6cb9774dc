# 64-bit Arm: Debian's g++-aarch64-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(ORVEX_SYSROOT /usr/aarch64-linux-gnu)
set(ORVEX_LOADER ld-linux-aarch64.so.1)
set(ORVEX_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
