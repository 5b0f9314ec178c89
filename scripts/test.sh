#!/usr/bin/env bash
# The test command: installs what is missing, builds, compiles the library as Soong would for a
# device (scripts/device-compile.sh), and runs every test three times: in a plain build, in a
# Release build (a user's first build: -O3), and under AddressSanitizer and
# UndefinedBehaviorSanitizer; a short soak of vxcamctl session on the plain build; then the offline
# logger under ThreadSanitizer, the whole suite built with clang against libc++, each fuzzer for 30
# seconds, and the whole suite cross-built for aarch64 under qemu-user. Every build here treats
# warnings as errors (VXCAM_WERROR), so any failure, warning or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

jobs=$(nproc)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# A camera sysroot with offline logging on, for the vxcamctl runs below.
camera_root() {
    mkdir -p "$scratch/$1/data/vendor/camera" "$scratch/$1/vendor"
    echo "vendor.camera.vcf.LogOfflineEnable=1" >"$scratch/$1/vendor/build.prop"
    echo "$scratch/$1"
}

echo "== build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVXCAM_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
./scripts/device-compile.sh
echo "== tests"
ctest --test-dir build --output-on-failure -j"$jobs"
echo "== benchmarks: a smoke run (the figures come from a run by hand, see the README)"
build/bench/VxCamOfflineLogger_bench --benchmark_filter='FilteredMessage|LogSystem' \
    --benchmark_min_time=0.01 --benchmark_repetitions=1 >/dev/null
echo "== soak: 35 s of camera sessions whose threads come and go, every line checked, memory sampled"
ANDROID_LOG_TAGS='*:s' build/tools/vxcamctl session --sysroot "$(camera_root soak)" --threads 8 \
    --lines 2000 --duration 35 --close-while-logging

echo "== Release build (-O3, whose warnings differ), without benchmarks and fuzzers"
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DVXCAM_WERROR=ON \
    -DVXCAM_BUILD_BENCHMARKS=OFF -DVXCAM_BUILD_FUZZERS=OFF >/dev/null
cmake --build build-release -j"$jobs"
echo "== tests in the Release build"
ctest --test-dir build-release --output-on-failure -j"$jobs"

echo "== build with AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVXCAM_SANITIZE=address,undefined \
    -DVXCAM_WERROR=ON >/dev/null
cmake --build build-asan -j"$jobs"
echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== build with ThreadSanitizer (the offline logger and its tool)"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVXCAM_SANITIZE=thread -DVXCAM_WERROR=ON \
    >/dev/null
cmake --build build-tsan -j"$jobs" --target VxCamOfflineLogger_test VxCamFaultInjection_test vxcamctl
echo "== offline logger and fault injection tests under ThreadSanitizer"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -j"$jobs" \
    -R '^(VxCamOfflineLogger_test|VxCamFaultInjection_test)\.'
echo "== vxcamctl session under ThreadSanitizer: closes while 8 threads log"
tsan_root=$(camera_root tsan)
TSAN_OPTIONS=halt_on_error=1 ANDROID_LOG_TAGS='*:s' \
    build-tsan/tools/vxcamctl session --sysroot "$tsan_root" --threads 8 --lines 20000 \
    --sessions 2 --close-while-logging --quiet | tail -3
echo "== the same without membarrier: the capture lock's other handshake"
TSAN_OPTIONS=halt_on_error=1 ANDROID_LOG_TAGS='*:s' \
    build-tsan/tools/vxcamctl session --sysroot "$tsan_root" --threads 8 --lines 20000 \
    --sessions 2 --close-while-logging --no-membarrier --quiet | tail -3

./scripts/libcxx.sh

echo "== fuzzers: libFuzzer under AddressSanitizer and UndefinedBehaviorSanitizer, 30 s each"
./scripts/fuzz.sh 30

./scripts/cross-aarch64.sh
