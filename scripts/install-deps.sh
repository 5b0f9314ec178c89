#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and only those that are missing.
set -euo pipefail

packages=(
    cmake make g++ pkg-config git clang-format
    zlib1g-dev libunwind-dev
    libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
    python3
    clang libclang-rt-dev llvm  # the fuzzers: libFuzzer, and llvm-symbolizer for their reports
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages: ${missing[*]}; run as root to install them" >&2
    exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
