# 32-bit ARM with Debian's compiler and C library. Of Debian 12's libraries for it those are built anew
# whose work is with times, for which they have 32 bits: with the daemon's 64 they would take the upper
# half of a limit's seconds for its microseconds, and know no date after 2038.
# shellcheck shell=sh disable=SC2034,SC2154 # read, and set, by what reads this
target=arm-linux-gnueabihf
binary_packages=
source_packages="libevent openssl"
compiler_step=debian
openssl_target=linux-armv4
target_flags="-O2 -funwind-tables -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 --sysroot=$sysroot"
link_flags="$link_flags --sysroot=$sysroot"
