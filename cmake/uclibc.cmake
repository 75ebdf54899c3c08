# Cross build for AArch64 with uClibc-ng.
set(preset uclibc)
include(${CMAKE_CURRENT_LIST_DIR}/made_toolchain.cmake)
