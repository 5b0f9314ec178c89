#!/bin/sh
# Compares the library's dynamic symbol table with the checked-in list of its interface, so that
# no change adds, drops or reshapes an exported symbol by accident. Binaries we do not build link
# against these names; a difference is a decision, made by regenerating the list:
#   tests/exported_symbols.sh --update LIBRARY LIST
# Objects carry their size, so a vtable that gains a slot or a global that changes shape shows up.
set -eu

update=0
if [ "${1:-}" = "--update" ]; then
    update=1
    shift
fi
if [ $# -ne 2 ]; then
    echo "usage: $0 [--update] LIBRARY LIST" >&2
    exit 2
fi
library=$1
list=$2

readelf=${READELF:-readelf}
cxxfilt=${CXXFILT:-c++filt}

actual=$(mktemp)
# Defined, global or weak, default or protected visibility: what another module can bind to.
# readelf is ELF-generic, so this reads a cross-built library as well as a native one.
mangled=$(mktemp)
trap 'rm -f "$actual" "$mangled"' EXIT
LC_ALL=C "$readelf" --dyn-syms --wide "$library" |
    awk '$7 != "UND" && $7 != "Ndx" && ($5 == "GLOBAL" || $5 == "WEAK") &&
         ($6 == "DEFAULT" || $6 == "PROTECTED") && $8 != "" {
             name = $8; sub(/@.*/, "", name)
             print $4 (($4 == "FUNC") ? "" : " " $3) "\t" name
         }' >"$mangled"
# The demangled name is for people; the mangled one stays beside it because a complete-object and
# a base-object constructor (C1, C2) demangle to the same text.
cut -f2 "$mangled" | "$cxxfilt" | paste - "$mangled" |
    awk -F'\t' '{ print $2 "\t" $1 "\t" $3 }' | LC_ALL=C sort -u >"$actual"

if [ ! -s "$actual" ]; then
    echo "exported_symbols: no exported symbols read from $library" >&2
    exit 1
fi

if [ "$update" -eq 1 ]; then
    cp "$actual" "$list"
    echo "exported_symbols: wrote $(wc -l <"$list") symbols to $list"
    exit 0
fi

if [ ! -f "$list" ]; then
    echo "exported_symbols: $list is missing; create it with:" >&2
    echo "  $0 --update $library $list" >&2
    exit 1
fi
if ! diff -u "$list" "$actual"; then
    echo "exported_symbols: the library's interface differs from $list (- listed, + built)." >&2
    echo "If the change is meant, regenerate the list: $0 --update $library $list" >&2
    exit 1
fi
echo "exported_symbols: $(wc -l <"$list") symbols, as listed"
