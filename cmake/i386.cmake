# 32-bit x86, the daemon's own platform: Debian's g++-i686-linux-gnu. (g++-multilib with -m32 would
# work too, but can't be installed beside the cross compilers of the other platforms.)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(ORVEX_SYSROOT /usr/i686-linux-gnu)
set(ORVEX_LOADER ld-linux.so.2)
set(ORVEX_EMULATOR qemu-i386-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
