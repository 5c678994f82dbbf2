#!/bin/sh
# The shared library as a host's loader sees it: exactly the listed symbols, the plain name, hardening, no dependency but the C
# and C++ run-time libraries.
#   BinaryTest.sh LIBRARY EXPORT_LIST
set -eu
export LC_ALL=C.UTF-8
library=$1
exportList=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
fail() {
    echo "$1" >&2
    status=1
}

sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]\{1,\}\);.*/\1/p' "$exportList" | sort >"$work/listed"
nm -D --defined-only "$library" | awk '{ print $3 }' | sort >"$work/exported"
diff -u "$work/listed" "$work/exported" || fail "symbols: - is listed but not exported, + is exported but not listed"

readelf -dW "$library" >"$work/dynamic"
readelf -lW "$library" >"$work/segments"
grep -q 'SONAME.*\[libErrorHandlerDll\.so\]$' "$work/dynamic" || fail "the soname is not the plain file name"
grep -q 'FLAGS_1.*NOW' "$work/dynamic" || fail "symbols are bound lazily"
! grep -q 'TEXTREL' "$work/dynamic" || fail "text relocations"
grep -q 'GNU_RELRO' "$work/segments" || fail "the relocated data stays writable"
grep 'GNU_STACK' "$work/segments" | grep -q ' RW ' || fail "the stack is executable"
foreign=$(sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' "$work/dynamic" |
    grep -vE '^(libstdc\+\+|libgcc_s|libc|libm|ld-linux-x86-64)\.so\.' || true)
[ -z "$foreign" ] || fail "needs $foreign"
exit $status
