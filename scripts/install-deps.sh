#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and only those that are missing.
#   install-deps.sh           the native build, its tests and benchmarks, and the device compile
#                             check (scripts/device-compile.sh) but for its arm64 C library headers
#   install-deps.sh aarch64   the 64-bit Arm cross build and qemu-user (scripts/cross-aarch64.sh),
#                             whose C library headers the device compile check uses too
set -euo pipefail

case "${1:-}" in
    "")
        packages=(
            cmake make g++ pkg-config git clang-format
            zlib1g-dev
            # AOSP's own platform headers, which the library and the host port are written against
            android-libcutils-dev android-liblog-dev android-libutils-dev android-libbacktrace-dev
            android-platform-system-core-headers
            libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
            python3
            # the fuzzers: libFuzzer, and llvm-symbolizer for their reports
            clang libclang-rt-dev llvm
            # the device compile check: bpfmt, and libc++, a device's C++ library (also for the
            # libc++ build, scripts/libcxx.sh, with GoogleTest from libgtest-dev's sources)
            blueprint-tools libc++-dev libc++abi-dev
            # the interface's types against their baseline (tests/abi_types.sh)
            abigail-tools
        )
        ;;
    aarch64)
        # The cross compiler, qemu, and the target's libraries from Debian's arm64 archive beside
        # the build machine's (multiarch). Programs run under qemu on the arm64 runtime
        # (libc6:arm64, libstdc++6:arm64), whose versions apt keeps equal to the native ones.
        packages=(
            cmake make pkg-config python3
            g++-aarch64-linux-gnu qemu-user
            libstdc++6:arm64 zlib1g-dev:arm64
            libgtest-dev:arm64 libgmock-dev:arm64
        )
        ;;
    *)
        echo "usage: $0 [aarch64]" >&2
        exit 2
        ;;
esac

# A name without an architecture means the build machine's (or none): dpkg-query alone would take
# libunwind-dev:arm64 for libunwind-dev.
native=$(dpkg --print-architecture)
missing=()
for package in "${packages[@]}"; do
    arch=${package#*:}
    [ "$arch" != "$package" ] || arch=$native
    if ! dpkg-query -W -f='${Status} ${Architecture}\n' "${package%%:*}" 2>/dev/null |
        grep -Eq "^install ok installed ($arch|all)\$"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "install-deps: missing packages: ${missing[*]}; run as root to install them" >&2
        exit 1
    fi
    echo "install-deps: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    if [ "${1:-}" = aarch64 ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
        dpkg --add-architecture arm64
    fi
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
