#!/bin/sh
# The shared library exports exactly the symbols of the export list.
set -eu
cd "$(dirname "$0")/.."
tools/build.sh release ErrorHandlerDll

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]\{1,\}\);.*/\1/p' ErrorHandlerDll/ErrorHandlerDll.map | sort >"$work/listed"
nm -D --defined-only build/release/libErrorHandlerDll.so | awk '{ print $3 }' | sort >"$work/exported"

if ! diff -u "$work/listed" "$work/exported"; then
    echo "export-list: - is listed but not exported, + is exported but not listed" >&2
    exit 1
fi
echo "$(wc -l <"$work/listed") symbols, as listed"
