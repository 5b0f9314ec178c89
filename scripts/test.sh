#!/usr/bin/env bash
# The test command: installs what is missing, builds, and runs every test twice: once in a plain
# build, once under AddressSanitizer and UndefinedBehaviorSanitizer; then the offline logger under
# ThreadSanitizer, each fuzzer for 30 seconds, and the whole suite cross-built for aarch64 under
# qemu-user. Any failure or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

jobs=$(nproc)

echo "== build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
echo "== tests"
ctest --test-dir build --output-on-failure -j"$jobs"
echo "== benchmarks: a smoke run (the figures come from a run by hand, see the README)"
build/bench/VxCamOfflineLogger_bench --benchmark_filter='FilteredMessage|LogSystem' \
    --benchmark_min_time=0.01 --benchmark_repetitions=1 >/dev/null

echo "== build with AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVXCAM_SANITIZE=address,undefined >/dev/null
cmake --build build-asan -j"$jobs"
echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== build with ThreadSanitizer (the offline logger and its tool)"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVXCAM_SANITIZE=thread >/dev/null
cmake --build build-tsan -j"$jobs" --target VxCamOfflineLogger_test vxcamctl
echo "== offline logger tests under ThreadSanitizer"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -j"$jobs" -R '^VxCamOfflineLogger_test\.'
echo "== vxcamctl session under ThreadSanitizer: closes while 8 threads log"
tsan_root=$(mktemp -d)
trap 'rm -rf "$tsan_root"' EXIT
mkdir -p "$tsan_root/data/vendor/camera" "$tsan_root/vendor"
echo "vendor.camera.vcf.LogOfflineEnable=1" >"$tsan_root/vendor/build.prop"
TSAN_OPTIONS=halt_on_error=1 ANDROID_LOG_TAGS='*:s' \
    build-tsan/tools/vxcamctl session --sysroot "$tsan_root" --threads 8 --lines 20000 \
    --sessions 2 --close-while-logging --quiet | tail -2
echo "== the same without membarrier: the capture lock's other handshake"
TSAN_OPTIONS=halt_on_error=1 ANDROID_LOG_TAGS='*:s' \
    build-tsan/tools/vxcamctl session --sysroot "$tsan_root" --threads 8 --lines 20000 \
    --sessions 2 --close-while-logging --no-membarrier --quiet | tail -2

echo "== fuzzers: libFuzzer under AddressSanitizer and UndefinedBehaviorSanitizer, 30 s each"
./scripts/fuzz.sh 30

./scripts/cross-aarch64.sh
