#!/usr/bin/env bash
# Builds the library, vxcamctl and the unit tests with clang against libc++ and libc++abi
# (build-libcxx, GoogleTest from its sources) and runs the tests there. An Android tree builds with
# libc++: this keeps the code and the exported names (abi/*-libc++.txt) right for it.
set -euo pipefail
cd "$(dirname "$0")/.."

build="build-libcxx"
cxxflags=""
ldflags=""
# Debian's libc++-dev depends on LLVM's libunwind-dev (libunwind-14-dev), which conflicts with
# libunwind-dev of every architecture: the host port's unwinder, native and arm64. Without
# libc++-dev, its headers come from its package unpacked into the build folder, and the libraries
# from libc++1 and libc++abi-dev, which install beside libunwind-dev.
if ! dpkg-query -W -f='${Status}' libc++-dev 2>/dev/null | grep -q 'install ok installed'; then
    major=$(clang -dumpversion | cut -d. -f1)
    version=$(dpkg-query -W -f='${Version}' "libc++1-$major")
    root=$PWD/$build/libc++-dev
    if [ "$(cat "$root/version" 2>/dev/null || true)" != "$version" ]; then
        rm -rf "$root"
        mkdir -p "$root/deb" "$root/lib"
        download() { (cd "$root/deb" && apt-get download -qq "libc++-$major-dev=$version"); }
        # apt's lists may be missing or out of date: one update, then the second try.
        download 2>/dev/null || { apt-get update -qq && download; }
        dpkg-deb -x "$root"/deb/*.deb "$root"
        # Its libc++.so is a linker script that adds -lunwind, which would find libunwind-dev's.
        ln -s "/usr/lib/llvm-$major/lib/libc++.so.1" "$root/lib/libc++.so"
        echo "$version" >"$root/version"
    fi
    cxxflags="-isystem $root/usr/include/c++/v1"
    ldflags="-L$root/lib"
fi

jobs=$(nproc)
echo "== build with clang and libc++"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVXCAM_LIBCXX=ON \
    -DVXCAM_BUILD_BENCHMARKS=OFF -DVXCAM_BUILD_FUZZERS=OFF -DCMAKE_CXX_FLAGS="$cxxflags" \
    -DCMAKE_EXE_LINKER_FLAGS="$ldflags" -DCMAKE_SHARED_LINKER_FLAGS="$ldflags" \
    -DCMAKE_MODULE_LINKER_FLAGS="$ldflags" >/dev/null
cmake --build "$build" -j"$jobs"
echo "== tests against libc++"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
