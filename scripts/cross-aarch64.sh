#!/usr/bin/env bash
# Cross-builds the library, vxcamctl and the unit tests for 64-bit Arm with Debian's cross compiler
# and runs the tests under qemu-user, so that the record layouts (static_asserts), atomics, the
# capture lock, unwinding and the signal catcher are checked on the device's architecture.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh aarch64

# Tests start aarch64 programs of their own (vxcamctl, a re-executed test binary, vxcamctl's own
# re-execution for --sysroot): the kernel runs them through qemu once binfmt_misc knows the
# format. Without it (for instance in a container that may not mount it), vxcamctl and its tests
# are left out and the rest still runs.
binfmt=/proc/sys/fs/binfmt_misc
can_exec_aarch64() {
    [ -e "$binfmt/qemu-aarch64" ] && grep -qx enabled "$binfmt/qemu-aarch64" &&
        grep -qx enabled "$binfmt/status"
}
if [ ! -e "$binfmt/qemu-aarch64" ] && [ "$(id -u)" -eq 0 ]; then
    { [ -e "$binfmt/register" ] || mount -t binfmt_misc binfmt_misc "$binfmt"; } 2>/dev/null || true
    # ELF, 64-bit, little-endian, executable or shared object, machine 183 (AArch64).
    magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
    mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    if [ -e "$binfmt/register" ]; then
        printf ':qemu-aarch64:M::%s:%s:%s:' "$magic" "$mask" "$(command -v qemu-aarch64)" \
            >"$binfmt/register" 2>/dev/null || true
    fi
fi

tools=ON
excluded=(
    # Installs a seccomp filter to take membarrier away, which qemu-user refuses to its guests.
    'vxcamctl_test\.VxcamctlSession\.AccountsForEveryLineWithoutMembarrier'
    # Builds its consumers with the build machine's own compiler.
    'installed_package'
)
if ! can_exec_aarch64; then
    echo "cross-aarch64: binfmt_misc cannot run aarch64 programs: vxcamctl and its tests left out"
    tools=OFF
    excluded+=(
        # Re-executes its own binary (a threadsafe death test).
        'port_host_test\.PortHostLogTest\.AndroidLogTagsFilterTheStderrLogger'
    )
fi

jobs=$(nproc)
echo "== aarch64 cross build"
cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVXCAM_BUILD_BENCHMARKS=OFF -DVXCAM_BUILD_TOOLS=$tools \
    -DVXCAM_WERROR=ON >/dev/null
cmake --build build-aarch64 -j"$jobs"
echo "== aarch64 tests under qemu-user"
# qemu-user 7.2 passes mremap(MREMAP_DONTUNMAP) on, but then takes the old range for unmapped (a
# system call on it fails, and qemu may map something else there). Refused, as kernels before 5.7
# refuse it, the logger's flushed buckets give their pages back instead, which qemu emulates.
old_kernel=(python3 scripts/refuse-syscalls.py --mremap-dontunmap)
exclude=$(IFS='|'; echo "^(${excluded[*]})\$")
"${old_kernel[@]}" ctest --test-dir build-aarch64 --output-on-failure -j"$jobs" -E "$exclude"

[ "$tools" = ON ] || exit 0
echo "== aarch64 vxcamctl session: closes while 8 threads log, with membarrier and without"
session_root=$(mktemp -d)
trap 'rm -rf "$session_root"' EXIT
mkdir -p "$session_root/data/vendor/camera" "$session_root/vendor"
echo "vendor.camera.vcf.LogOfflineEnable=1" >"$session_root/vendor/build.prop"
for refuse in "" --membarrier; do
    ANDROID_LOG_TAGS='*:s' "${old_kernel[@]}" $refuse build-aarch64/tools/vxcamctl session \
        --sysroot "$session_root" --threads 8 --lines 20000 --sessions 2 --close-while-logging \
        --quiet | tail -3
done
