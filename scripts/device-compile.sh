#!/usr/bin/env bash
# The device compile check: every source of the library module in Android.bp, compiled as Soong
# would compile it for an arm64 device, as far as a Debian machine can: clang with libc++, Soong's
# default flags, then the module's own flags read from Android.bp, against Android's own headers
# (Debian's AOSP packages) rather than the host port's stand-ins. Any warning or error fails it, and
# so does an Android.bp that bpfmt would change.
#
# What it cannot show: bionic's headers (glibc's stand in, with the few bionic declarations the
# library needs in port/stand-in/), the Android release's own versions of the AOSP headers
# (Debian packages Android 10's), the aarch64-linux-android target and linking.
set -euo pipefail
cd "$(dirname "$0")/.."

bp=Android.bp
module=libvxcamcommonutils

./scripts/install-deps.sh >/dev/null
# The arm64 C library headers come with the cross build's packages.
arm64_libc=/usr/aarch64-linux-gnu/include/stdio.h
if [ ! -e "$arm64_libc" ]; then
    ./scripts/install-deps.sh aarch64 >/dev/null || true
fi

echo "== bpfmt: $bp"
if ! difference=$(bpfmt -d "$bp" 2>&1); then
    echo "$difference"
    echo "device-compile: $bp does not parse" >&2
    exit 1
fi
if [ -n "$difference" ]; then
    echo "$difference"
    echo "device-compile: $bp is not as bpfmt writes it (bpfmt -w $bp)" >&2
    exit 1
fi

# ---- Soong's defaults -----------------------------------------------------------------------
# The flags Soong puts ahead of a module's own for arm64 device C++, as recent AOSP releases set
# them (build/soong/cc/config: global.go, arm64_device.go); they change from release to release,
# so this is the part of them that decides what compiles and what warns, not an exact copy. Left
# out: -target, -nostdlibinc and bionic's -isystem folders (replaced below), -march (the device's
# arch variant), -g and the like, which change no diagnostic.
soong_defaults=(
    # every C and C++ source
    -DANDROID -fmessage-length=0 -W -Wall -Wno-unused -Winit-self -Wpointer-arith
    -Wunreachable-code-loop-increment -no-canonical-prefixes -DNDEBUG -UDEBUG
    -fno-exceptions -Wno-multichar -O2 -fno-strict-aliasing -Werror=date-time
    -Werror=pragma-pack -Werror=pragma-pack-suspicious-include -Werror=string-plus-int
    -Werror=unreachable-code-loop-increment -D__compiler_offsetof=__builtin_offsetof -faddrsig
    # device code
    -fPIC -ffunction-sections -fdata-sections -fno-short-enums -funwind-tables
    -fstack-protector-strong "-Wa,--noexecstack" -D_FORTIFY_SOURCE=2 -Wstrict-aliasing=2
    -Werror=return-type -Werror=non-virtual-dtor -Werror=address -Werror=sequence-point
    -Werror=format-security
    # C++
    -Wsign-promo -Wimplicit-fallthrough -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS
    -Wno-gnu-include-next -fno-rtti
)
# Those Soong puts after the module's flags, so that no module turns them off.
soong_no_override=(
    -Werror=bool-operation -Werror=format-insufficient-args -Werror=implicit-int-float-conversion
    -Werror=int-in-bool-context -Werror=int-to-pointer-cast -Werror=pointer-to-int-cast
    -Werror=xor-used-as-pow -Werror=fortify-source -Werror=address-of-temporary
    -Werror=null-dereference
)

# ---- The module, from Android.bp ------------------------------------------------------------
# Its cflags, cppflags, rtti, cpp_std and include folders, its defaults' first.
read_bp() {
    python3 scripts/android-bp-flags.py "$bp" "$module" "$1"
}
module_flags=$(read_bp flags)
sources=$(read_bp srcs)
mapfile -t module_flags <<<"$module_flags"
mapfile -t sources <<<"$sources"

# The headers of the libraries it links that Android.bp does not define. Debian's AOSP headers go
# in with -I, as Soong passes a library's exported folders; under the module's warnings they need
# no -isystem. port/stand-in holds what Debian lacks: libsync's header and bionic's
# additions to the C library.
android_headers=/usr/include/android
library_includes=(-Iport/stand-in)
for dependency in $(read_bp deps); do
    case $dependency in
        liblog | libcutils | libutils | libutilscallstack)
            [ -e "$android_headers/cutils/trace.h" ] || {
                echo "device-compile: no AOSP headers in $android_headers" >&2
                exit 1
            }
            ;;
        libsync) ;;  # port/stand-in/sync/sync.h
        libz) ;;     # zlib.h, in the C library's folders
        libvxf) ;;   # its header comes from libvxcam_vxf_headers, among the module's flags
        *)
            echo "device-compile: $module links $dependency, whose headers this check lacks" >&2
            exit 1
            ;;
    esac
done
library_includes+=("-I$android_headers")

# ---- The toolchain --------------------------------------------------------------------------
# clang for arm64 with libc++, a device's C++ library; Debian's aarch64 glibc headers stand in for
# bionic's. Where those cannot work, the build machine's own target, said so.
clang_major=$(clang --version | sed -n 's/.*clang version \([0-9]*\)\..*/\1/p' | head -n 1)
libcxx=/usr/lib/llvm-$clang_major/include/c++/v1
if [ ! -e "$libcxx/__config" ]; then
    echo "device-compile: no libc++ headers in $libcxx (libc++-dev)" >&2
    exit 1
fi
toolchain=(clang++ -nostdinc++ -cxx-isystem "$libcxx")
probe='#include <mutex>
#include <string>
#include <sys/syscall.h>
#include <zlib.h>
std::string probe() { return std::to_string(SYS_gettid) + zlibVersion(); }'
target=aarch64-linux-gnu
if ! "${toolchain[@]}" "--target=$target" -std=c++17 -x c++ -fsyntax-only - <<<"$probe" 2>/dev/null; then
    target=$(clang -dumpmachine)
    echo "device-compile: the arm64 headers do not work here; compiling for $target instead"
fi
toolchain+=("--target=$target")

# ---- Compile --------------------------------------------------------------------------------
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
compile() {
    "${toolchain[@]}" "${soong_defaults[@]}" "${module_flags[@]}" "${soong_no_override[@]}" \
        "${library_includes[@]}" -c -o /dev/null "$1" 2>"$logs/$2.log"
}
jobs=$(nproc)
pids=()
for index in "${!sources[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
    compile "${sources[$index]}" "$index" &
    pids[index]=$!
done
failed=0
for index in "${!sources[@]}"; do
    wait "${pids[$index]}" || failed=$((failed + 1))
done

# A warning is reported as an error under the module's -Werror; both count as warnings here, the
# other errors as errors.
warnings=0
errors=0
for index in "${!sources[@]}"; do
    log=$logs/$index.log
    [ -s "$log" ] && cat "$log"
    warnings=$((warnings + $(grep -cE ': warning: |: error: .*\[-Werror' "$log" || true)))
    errors=$((errors + $(grep -E ': (fatal )?error: ' "$log" | grep -vc '\[-Werror' || true)))
done
echo "== device compile: ${#sources[@]} sources, $warnings warnings, $errors errors" \
    "($target, libc++, $module in $bp)"
[ "$failed" -eq 0 ] && [ "$warnings" -eq 0 ] && [ "$errors" -eq 0 ]
