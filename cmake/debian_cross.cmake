# Cross build with Debian's compiler, C library and other packages, for a preset's file that has set
# CMAKE_LIBRARY_ARCHITECTURE, CMAKE_SYSTEM_PROCESSOR, CMAKE_SYSROOT, how that is made and the emulator.

set(CMAKE_SYSTEM_NAME Linux)
if(NOT EXISTS ${CMAKE_SYSROOT})
  message(FATAL_ERROR "There is no ${CMAKE_SYSROOT}: ${sysroot_maker} makes it.")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(libraries ${CMAKE_SYSROOT}/usr/lib)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  ${libraries}/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${libraries}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# CTest runs the tests under qemu's user mode.
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator};-L;${CMAKE_SYSROOT})
