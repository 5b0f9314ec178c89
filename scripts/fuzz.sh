#!/usr/bin/env bash
# Builds the libFuzzer fuzzers with clang (build-fuzz) and runs each for a bounded time from a copy
# of its seed corpus, so the repository is not changed. Prints one summary line per fuzzer, and
# fails if any finds a crash, a leak, a timeout or a sanitizer report.
#
#   scripts/fuzz.sh [SECONDS] [FUZZER...]     default: 30 seconds, every fuzzer
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift || true
fuzzers=("$@")
[ ${#fuzzers[@]} -gt 0 ] || fuzzers=(override_file_fuzzer compression_fuzzer image_geometry_fuzzer
    offline_log_entry_fuzzer)

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVXCAM_BUILD_TESTS=OFF -DVXCAM_BUILD_TOOLS=OFF -DVXCAM_BUILD_BENCHMARKS=OFF -DVXCAM_WERROR=ON \
    >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${fuzzers[@]}"

failed=0
passed=0
for fuzzer in "${fuzzers[@]}"; do
    run="$build/run/$fuzzer"
    rm -rf "$run"
    mkdir -p "$run/corpus" "$run/artifacts" "$run/sysroot/data/vendor/camera"
    cp fuzz/corpus/"$fuzzer"/* "$run/corpus/"
    flags=(-max_total_time="$seconds" -print_final_stats=1 -timeout=20 -rss_limit_mb=2048
        -artifact_prefix="$run/artifacts/")
    case "$fuzzer" in
        image_geometry_fuzzer) flags+=(-max_len=8192) ;;  # names past the 4095 characters read
        offline_log_entry_fuzzer) flags+=(-max_len=2048) ;;
    esac
    status=0
    VXCAM_SYSROOT="$PWD/$run/sysroot" ANDROID_LOG_TAGS='*:s' \
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/fuzz/$fuzzer" "${flags[@]}" "$run/corpus" >"$run/log" 2>&1 || status=$?
    # libFuzzer's last status line ("#N DONE cov: C ft: F corp: U/S ...") and its final stats.
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$run/log" | tail -1 || true)
    field() { local value; value=$(sed -nE "s/.* $1: ([^ ]+).*/\\1/p" <<<"$done_line"); echo "${value:--}"; }
    stat() { local value; value=$(sed -nE "s/^stat::$1:[[:space:]]+([0-9]+).*/\\1/p" "$run/log" | tail -1); echo "${value:--}"; }
    printf '%-26s %s execs (%s/s), cov %s, ft %s, corpus %s\n' "$fuzzer" \
        "$(stat number_of_executed_units)" "$(stat average_exec_per_sec)" "$(field cov)" \
        "$(field ft)" "$(field corp)"
    if [ "$status" -ne 0 ] || [ -z "$done_line" ] ||
        grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:' "$run/log"; then
        failed=$((failed + 1))
        echo "$fuzzer FAILED (exit status $status); the end of its log, $run/log:"
        tail -n 60 "$run/log"
        for artifact in "$run"/artifacts/*; do
            [ -e "$artifact" ] || continue
            echo "input $artifact (base64):"
            base64 "$artifact" | head -c 20000
            echo
        done
    else
        passed=$((passed + 1))
    fi
done
echo "fuzzers: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
