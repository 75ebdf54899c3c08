# Cross build for 32-bit ARM (ARMv7 with a floating-point unit) with Debian's compiler and packages, and
# with a libevent and an OpenSSL whose times have 64 bits.

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSROOT ${root}/build/armhf/toolchain/sysroot)
set(sysroot_maker "tools/toolchain/all armhf")
set(emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
