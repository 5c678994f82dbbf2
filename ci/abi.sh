#!/bin/sh
# Compares what hosts depend on in the binary (symbols, signatures, enumerators, layouts) with the stored baseline. Any
# difference fails, additions too: so that the baseline is changed on purpose, in the commit that changes the interface.
#   ci/abi.sh [--update]
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh abidw abidiff nm
tools/build.sh release ErrorHandlerDll

baseline=packaging/abi/libErrorHandlerDll.abi.xml
symbols=packaging/debian/symbols
library=build/release/libErrorHandlerDll.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What the tool says on standard error is about standard library templates, which are not part of the interface.
abidw --exported-interfaces-only --headers-dir include --drop-private-types --drop-undefined-syms --no-corpus-path \
    --no-comp-dir-path --no-show-locs --type-id-style hash "$library" >"$work/now.xml" 2>"$work/log" || {
    cat "$work/log" >&2
    exit 1
}
nm -D --defined-only "$library" | awk '{ print $3 }' | sort >"$work/exported"

if [ "${1:-}" = --update ]; then
    cp "$work/now.xml" "$baseline"
    echo "abi: baseline written"
elif ! abidiff --no-show-locs "$baseline" "$work/now.xml"; then
    echo "abi: hosts would notice the above. If that is meant: ci/abi.sh --update" >&2
    exit 1
fi

# A symbol's line says since which version it is there, for the dependencies of hosts' packages: written by hand.
sed -n 's/^ \(.*\)@Base .*/\1/p' "$symbols" | sort >"$work/listed"
if ! diff -u "$work/listed" "$work/exported"; then
    echo "abi: $symbols differs from the exported symbols: - is listed, + is exported" >&2
    exit 1
fi
echo "$(wc -l <"$work/listed") symbols, and what they take, as in the baseline"
