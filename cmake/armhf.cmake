# 32-bit Arm with a floating-point unit: Debian's g++-arm-linux-gnueabihf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(ORVEX_SYSROOT /usr/arm-linux-gnueabihf)
set(ORVEX_LOADER ld-linux-armhf.so.3)
set(ORVEX_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
