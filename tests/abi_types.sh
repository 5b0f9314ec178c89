#!/bin/sh
# Compares the types of the library's interface, as its debug information describes them, with the
# checked-in baseline, using libabigail (abidw, abidiff). exported_symbols catches a symbol that
# comes or goes; this catches what keeps every name and still breaks a binary built against the
# old headers: virtual functions that swap slots, a field that moves, a return type or an enum
# value that changes. A difference is a decision, made by regenerating the baseline:
#   tests/abi_types.sh --update LIBRARY HEADERS_DIR BASELINE
# The library must carry debug information (RelWithDebInfo or Debug).
set -eu

update=0
if [ "${1:-}" = "--update" ]; then
    update=1
    shift
fi
if [ $# -ne 3 ]; then
    echo "usage: $0 [--update] LIBRARY HEADERS_DIR BASELINE" >&2
    exit 2
fi
library=$1
headers=$2
baseline=$3

abidw=${ABIDW:-abidw}
abidiff=${ABIDIFF:-abidiff}
source_dir=$(cd "$(dirname "$0")/.." && pwd)

actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
# What the exported symbols reach, less the types defined outside the public headers (the
# library's own, behind opaque declarations). No source locations, build paths or DT_NEEDED, and
# ids hashed from the types, so that the baseline changes only when the interface does.
"$abidw" --headers-dir "$headers" --drop-private-types --exported-interfaces-only \
    --drop-undefined-syms --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed \
    --type-id-style hash "$library" |
    # Each translation unit keeps its source file's absolute path: relative to the tree instead.
    sed "s|path='$source_dir/|path='|" >"$actual"
if ! grep -q '<elf-symbol ' "$actual" || ! grep -q '<class-decl ' "$actual"; then
    echo "abi_types: no interface types read from $library: built without debug information?" >&2
    exit 1
fi

if [ "$update" -eq 1 ]; then
    cat "$actual" >"$baseline"
    echo "abi_types: wrote $baseline"
    exit 0
fi

if [ ! -f "$baseline" ]; then
    echo "abi_types: $baseline is missing; create it with:" >&2
    echo "  $0 --update $library $headers $baseline" >&2
    exit 1
fi
# abidiff's status has bit 1 for an error, 2 for a usage error, 4 for a change of the interface and
# 8 for one it knows to be incompatible. Whatever it reports fails: a change it calls compatible
# (a function added, a field moved) is still one to decide on.
status=0
"$abidiff" "$baseline" "$actual" || status=$?
if [ "$status" -ne 0 ]; then
    echo "abi_types: the interface types differ from $baseline (abidiff status $status)." >&2
    echo "If the change is meant, regenerate it: $0 --update $library $headers $baseline" >&2
    exit 1
fi
echo "abi_types: the interface types match $baseline"
