# A big-endian platform: Debian's g++-s390x-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(ORVEX_SYSROOT /usr/s390x-linux-gnu)
set(ORVEX_LOADER ld64.so.1)
set(ORVEX_EMULATOR qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
