# Cross build for AArch64 with the compiler and the sysroot that `tools/toolchain/all ${preset}` makes.
# CTest runs the tests under qemu's user mode.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
set(toolchain ${root}/build/${preset}/toolchain)
if(NOT EXISTS ${toolchain}/sysroot)
  message(FATAL_ERROR "There is no ${toolchain}: tools/toolchain/all ${preset} makes it.")
endif()
set(CMAKE_C_COMPILER ${toolchain}/compiler/bin/aarch64-linux-${preset}-gcc)
set(CMAKE_CXX_COMPILER ${toolchain}/compiler/bin/aarch64-linux-${preset}-g++)
set(CMAKE_SYSROOT ${toolchain}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;${CMAKE_SYSROOT})
