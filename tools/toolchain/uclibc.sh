# uClibc-ng, the C library of many a vendor's SDK and of Buildroot's smallest systems.
# shellcheck shell=sh disable=SC2034,SC2154 # read, and used, by what reads this
c_library_name=uClibc-ng
target=aarch64-linux-uclibc
binary_packages="$binary_packages uclibc-source"

# What docs/porting.md says. The rest is uClibc-ng's default.
uclibc_options() {
  cat <<OPTIONS
TARGET_aarch64=y
ARCH_WANTS_LITTLE_ENDIAN=y
KERNEL_HEADERS="$sysroot/usr/include"
RUNTIME_PREFIX="/"
DEVEL_PREFIX="/usr/"
# HARDWIRED_ABSPATH is not set
CROSS_COMPILER_PREFIX="aarch64-linux-gnu-"
UCLIBC_EXTRA_CFLAGS="$target_flags"
LDSO_GNU_HASH_SUPPORT=y
# LDSO_CACHE_SUPPORT is not set
UCLIBC_HAS_THREADS_NATIVE=y
UCLIBC_HAS_IPV6=y
UCLIBC_HAS_WCHAR=y
UCLIBC_HAS_GNU_GETOPT=y
UCLIBC_HAS_SYSLOG=y
UCLIBC_HAS_SSP=y
UCLIBC_SUSV3_LEGACY=y
UCLIBC_SUSV4_LEGACY=y
UCLIBC_HAS_ERRNO_MESSAGES=y
UCLIBC_HAS_SIGNUM_MESSAGES=y
DO_C99_MATH=y
OPTIONS
}

build_c_library() {
  dpkg --extract "$packages"/uclibc-source_*.deb "$objects/uclibc"
  unpack "$objects"/uclibc/usr/src/uClibc-ng-*.tar.xz
  rm -rf "$objects/uclibc"
  uclibc_options >.config
  make olddefconfig
  # An option that is unknown, or that another one forbids, would just be gone.
  uclibc_options | grep '=' | while read -r option; do
    grep -qxF -- "$option" .config || { echo "not taken: $option"; exit 1; }
  done
  make -j"$jobs" V=1
  make PREFIX="$sysroot" install
  sizes "$sysroot"/lib/libuClibc-*.so "$sysroot"/lib/ld*-uClibc-*.so
}
