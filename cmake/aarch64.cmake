# Cross build for AArch64 with Debian's compiler and packages.

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_SYSROOT ${root}/build/aarch64-sysroot)
set(sysroot_maker "tools/debian-sysroot aarch64")
set(emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
