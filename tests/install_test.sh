#!/usr/bin/env bash
# Installs the build into a scratch prefix, moves it elsewhere, and uses it from there as a user
# would, with nothing in LD_LIBRARY_PATH: the installed vxcamctl, a program built through the
# CMake package and one built with the README's pkg-config line.
#   install_test.sh BUILD LIBDIR BINDIR HAS_VXCAMCTL(0|1)
set -euo pipefail
build=$1
libdir=$2
bindir=$3
has_vxcamctl=$4
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH

cmake --install "$build" --prefix "$work/installed" >/dev/null
# Nothing may name the prefix it was installed to.
mv "$work/installed" "$work/prefix"
prefix=$work/prefix
test -f "$prefix/include/vxcamcommonutils/VxCamDebug.h"
test -f "$prefix/$libdir/cmake/VxCamCommonUtils/VxCamCommonUtilsConfig.cmake"
test -f "$prefix/$libdir/pkgconfig/vxcamcommonutils.pc"
test "$(readlink "$prefix/$libdir/libvxcamcommonutils.so")" = libvxcamcommonutils.so.1
# The library's own run path finds the port library beside it, and nothing of the build folder.
readelf -d "$prefix/$libdir/libvxcamcommonutils.so.1" >"$work/dynamic"
grep -q 'Library soname: \[libvxcamcommonutils.so.1\]$' "$work/dynamic"
grep -q 'Library runpath: \[\$ORIGIN\]$' "$work/dynamic"

if [ "$has_vxcamctl" = 1 ]; then
    # Each command, then a key line of what it printed.
    vxcamctl() { ANDROID_LOG_TAGS='*:s' "$prefix/$bindir/vxcamctl" "$@" >"$work/tool-out"; }
    vxcamctl --help
    grep -q '^usage: vxcamctl .*COMMAND' "$work/tool-out"
    vxcamctl format NV12 64x64
    grep -q '^buffer size    6144 ' "$work/tool-out"
    vxcamctl sysroot init "$work/root"
    grep -q '^next: vxcamctl session --sysroot /' "$work/tool-out"
    vxcamctl session --sysroot "$work/root" --threads 2 --lines 100
    grep -q 'result: no loss' "$work/tool-out"
fi

check_output() {
    local out=$1 err=$2
    grep -q '^depth=3 infoMask=0x23 tele=2.0 position4=-1$' "$out"
    grep -q '^segments=1 registered=0 fresh=10$' "$out"
    grep -Eq ' I VxCam   : \[INFO    \]\[CORE   \] Consumer:[0-9]+ main\(\) consumer sees queue depth 3$' "$err"
    ! grep -q 'filtered out' "$err"
}

cmake -S "$source_dir/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
VXCAM_SYSROOT="$work/empty" "$work/cmake-build/consumer" >"$work/out1" 2>"$work/err1"
check_output "$work/out1" "$work/err1"

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
# Both compilers: they reach the exported thread-locals differently (g++ calls their init function
# outright, clang only when it is defined).
for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || continue
    # shellcheck disable=SC2046
    "$compiler" -std=c++17 -Wall -Wextra -Werror -o "$work/pc-consumer" \
        "$source_dir/consumer/main.cpp" $(pkg-config --cflags --libs vxcamcommonutils) \
        -Wl,-rpath,"$(pkg-config --variable=libdir vxcamcommonutils)"
    VXCAM_SYSROOT="$work/empty" "$work/pc-consumer" >"$work/out2" 2>"$work/err2"
    check_output "$work/out2" "$work/err2"
done
echo "installed package: vxcamctl, CMake and pkg-config consumers (g++, clang++) work"
