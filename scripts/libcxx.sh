#!/usr/bin/env bash
# Builds the library, vxcamctl and the unit tests with clang against libc++ and libc++abi
# (build-libcxx, GoogleTest from its sources) and runs the tests there. An Android tree builds with
# libc++: this keeps the code and the exported names (abi/*-libc++.txt) right for it.
set -euo pipefail
cd "$(dirname "$0")/.."

build="build-libcxx"
./scripts/install-deps.sh

jobs=$(nproc)
echo "== build with clang and libc++"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVXCAM_LIBCXX=ON \
    -DVXCAM_BUILD_BENCHMARKS=OFF -DVXCAM_BUILD_FUZZERS=OFF -DVXCAM_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs"
echo "== tests against libc++"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
