# What the steps of tools/toolchain share; each of them reads it first. A step's one argument is the
# preset that the toolchain is for, of which the file of that name says what is different.
# shellcheck shell=sh disable=SC2034,SC2154 # set here, used by the steps, or set by the preset's file
set -eu

tools=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$tools/../.." && pwd)
case "$#:${1:-}" in
  1:uclibc | 1:musl | 1:armhf) preset=$1 ;;
  *) echo "usage: tools/toolchain/$(basename "$0") uclibc|musl|armhf" >&2; exit 2 ;;
esac
place=$root/build/$preset/toolchain
packages=$place/packages    # as they came
objects=$place/objects      # where they are built
compiler=$place/compiler    # runs here
sysroot=$place/sysroot      # what a router has, headers and what tests need
stamps=$place/stamps
logs=$place/logs
jobs=$(nproc)

# What holds unless the preset's file says something else.
binary_packages="gcc-12-source googletest linux-libc-dev-arm64-cross rapidjson-dev"
source_packages="json-c libevent openssl zlib"
compiler_step=compiler  # after which there is a compiler and a C library
openssl_target=linux-aarch64
# Atomics inside a function, not in libgcc: there they ask the C library for the processor's
# abilities, with a function that uClibc-ng has not got. Unwind tables, for crash records.
target_flags="-O2 -mno-outline-atomics -funwind-tables"
# Bound when it is loaded, not call by call: uClibc-ng's lazy binding breaks thread-local variables that
# are asked for through a descriptor.
link_flags="-Wl,-z,relro,-z,now"
# shellcheck source=tools/toolchain/musl.sh
. "$tools/$preset.sh"

export PATH="$compiler/bin:$PATH"
export PKG_CONFIG_SYSROOT_DIR="$sysroot" PKG_CONFIG_LIBDIR="$sysroot/usr/lib/pkgconfig"

# fingerprint NEEDED...: changes with the commands of the step, and with all that it is made from.
fingerprint() {
  {
    sed -e '/^ *#/d' -e '/^$/d' "$tools/$step_name" "$tools/$preset.sh"
    echo "$target $target_flags $link_flags $binary_packages $source_packages"
    [ $# -eq 0 ] || cat "$@"
  } | cksum
}

# step NAME SAYING [NEEDED...]: ends the script if the step was made before, from the same commands
# and from the same results of the steps NEEDED. What it prints from now on goes to its log.
step() {
  step_name=$1
  saying=$2
  shift 2
  cd "$stamps"
  exec 9>"$place/lock"
  flock 9  # somebody else may be at it
  step_fingerprint=$(fingerprint "$@")
  if [ -f "$step_name" ] && [ "$(cat "$step_name")" = "$step_fingerprint" ]; then
    exit 0
  fi
  rm -f "$step_name"
  mkdir -p "$packages" "$objects" "$logs"
  echo "$(date +%H:%M:%S) $saying"
  exec 3>&1 >"$logs/$step_name" 2>&1
  trap 'step_failed' EXIT
}

step_failed() {
  tail -n 30 "$logs/$step_name" >&3
  echo "tools/toolchain/$step_name has failed; all that it printed is in $logs/$step_name" >&3
}

# say TEXT: shows it to the user and not in the log.
say() {
  echo "$*" >&3
}

# The step's last words: it need not be made again.
finished() {
  trap - EXIT
  rm -rf "${objects:?}/$step_name"
  echo "$step_fingerprint" >"$stamps/$step_name"
}

# sizes FILE...: shows how large the libraries are that a router would hold.
sizes() {
  for library in "$@"; do
    say "         $(wc -c <"$library") bytes $(basename "$library")"
  done
}

# strip_libraries NAME...: strips those in the sysroot, as a router would hold them.
strip_libraries() {
  for library in "$@"; do
    "$target-strip" --strip-unneeded "$(realpath "$sysroot/usr/lib/$library")"
    sizes "$sysroot/usr/lib/$library"
  done
}

# build_with_cmake [OPTION...]: builds what is in the current folder and puts it into the sysroot.
build_with_cmake() {
  cmake -S . -B build -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$preset.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib \
    -DCMAKE_C_FLAGS_RELEASE="$target_flags" -DCMAKE_CXX_FLAGS_RELEASE="$target_flags" \
    -DCMAKE_SHARED_LINKER_FLAGS="$link_flags" "$@"
  cmake --build build -j "$jobs"
  DESTDIR=$sysroot cmake --install build
}

# unpack ARCHIVE [TAR'S OPTION...]: makes $objects/STEP anew from what is in the archive's only folder,
# and goes there.
unpack() {
  archive=$1
  shift
  work=${objects:?}/$step_name
  rm -rf "$work"
  mkdir "$work"
  tar -x --strip-components=1 -C "$work" "$@" -f "$archive"
  cd "$work"
}

mkdir -p "$stamps"
