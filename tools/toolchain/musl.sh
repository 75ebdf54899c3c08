# musl, the C library of OpenWrt.
# shellcheck shell=sh disable=SC2034,SC2154 # read, and used, by what reads this
c_library_name=musl
target=aarch64-linux-musl
source_packages="$source_packages musl"

build_c_library() {
  unpack "$packages"/musl_*.orig.tar.gz
  # With unwind tables, which musl leaves out unasked.
  ./configure --target="$target" --prefix=/usr --syslibdir=/lib --disable-static --disable-wrapper \
    CROSS_COMPILE=aarch64-linux-gnu- CFLAGS="$target_flags"
  make -j"$jobs"
  make DESTDIR="$sysroot" install
  # The library is the loader as well; a link to an absolute path would lead out of the sysroot.
  ln -sfn ../usr/lib/libc.so "$sysroot/lib/ld-musl-aarch64.so.1"
  aarch64-linux-gnu-strip --strip-unneeded "$sysroot/usr/lib/libc.so"
  sizes "$sysroot/usr/lib/libc.so"
}
