# Cross build for AArch64 with musl.
set(preset musl)
include(${CMAKE_CURRENT_LIST_DIR}/made_toolchain.cmake)
