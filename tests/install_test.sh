#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds programs outside the project against it:
# one through the CMake package, one through pkg-config.
set -euo pipefail
build=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/include/vxcamcommonutils/VxCamDebug.h"
test -f "$work/prefix/lib/cmake/VxCamCommonUtils/VxCamCommonUtilsConfig.cmake"
test -f "$work/prefix/lib/pkgconfig/vxcamcommonutils.pc"

check_output() {
    local out=$1 err=$2
    grep -q '^depth=3 infoMask=0x23 tele=2.0 position4=-1$' "$out"
    grep -q '^segments=1 registered=0 fresh=10$' "$out"
    grep -Eq ' I VxCam   : \[INFO    \]\[CORE   \] Consumer:[0-9]+ main\(\) consumer sees queue depth 3$' "$err"
    ! grep -q 'filtered out' "$err"
}

cmake -S "$source_dir/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
VXCAM_SYSROOT="$work/empty" "$work/cmake-build/consumer" >"$work/out1" 2>"$work/err1"
check_output "$work/out1" "$work/err1"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# Both compilers: they reach the exported thread-locals differently (g++ calls their init function
# outright, clang only when it is defined).
for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || continue
    # shellcheck disable=SC2046
    "$compiler" -std=c++17 -Wall -Wextra -Werror -o "$work/pc-consumer" \
        "$source_dir/consumer/main.cpp" $(pkg-config --cflags --libs vxcamcommonutils) \
        -Wl,-rpath,"$work/prefix/lib"
    VXCAM_SYSROOT="$work/empty" "$work/pc-consumer" >"$work/out2" 2>"$work/err2"
    check_output "$work/out2" "$work/err2"
done
echo "installed package: CMake and pkg-config consumers (g++, clang++) work"
