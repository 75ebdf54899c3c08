# tavlo_build_flags: what every target of this project is compiled and linked with.

option(TAVLO_FUZZ "Build the fuzz targets, with clang and -fsanitize=fuzzer-no-link" OFF)
set(TAVLO_SANITIZE "" CACHE STRING "Value of -fsanitize= for the whole build; empty for none")

add_library(tavlo_build_flags INTERFACE)
target_include_directories(tavlo_build_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)

target_compile_options(tavlo_build_flags INTERFACE
  -Werror
  -Wall
  -Wextra
  -Wpedantic
  -Wshadow
  -Wconversion
  -Wsign-conversion
  -Wformat=2
  -Wold-style-cast
  -Wnon-virtual-dtor
  -Woverloaded-virtual
  -Wcast-align
  -Wundef
  -Wimplicit-fallthrough
  -Wsuggest-override
  -Wzero-as-null-pointer-constant
  $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>
  $<$<CXX_COMPILER_ID:Clang>:-Wno-reserved-macro-identifier>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-branches>
  $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>)

# On 32-bit ARM a function that throws nothing has no unwind table unasked, and a crash record ends there.
# g++ before 7.1 passed some arguments differently there, which is said of each of them.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  target_compile_options(tavlo_build_flags INTERFACE -funwind-tables -Wno-psabi)
endif()

# A function whose last call has become a jump is missing in a crash record, such as the one that
# tells what a listener's thread is.
target_compile_options(tavlo_build_flags INTERFACE -fno-optimize-sibling-calls)

# Times and file sizes of 64 bits where the processor has 32, for a router that runs past 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(tavlo_build_flags INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

# Out-of-line atomics ask the C library for __getauxval, which uClibc-ng may not have.
target_compile_options(tavlo_build_flags INTERFACE
  $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},aarch64>:-mno-outline-atomics>)

if(TAVLO_SANITIZE)
  target_compile_options(tavlo_build_flags INTERFACE
    -fsanitize=${TAVLO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tavlo_build_flags INTERFACE -fsanitize=${TAVLO_SANITIZE})
  target_compile_definitions(tavlo_build_flags INTERFACE TAVLO_SANITIZED)
  # clang looks at an object's type through a pipe, for which tests leave no descriptors.
  target_compile_options(tavlo_build_flags INTERFACE $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=vptr>)
else()
  target_compile_options(tavlo_build_flags INTERFACE
    -fPIE
    -fstack-protector-strong
    -fstack-clash-protection
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},aarch64>:-mbranch-protection=standard>
    -ffunction-sections
    -fdata-sections
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  target_link_options(tavlo_build_flags INTERFACE
    -pie
    LINKER:-z,relro
    LINKER:-z,now
    LINKER:-z,noexecstack
    LINKER:--gc-sections)
endif()
