#!/bin/bash
# The shared library as a host's loader sees it: exactly the listed symbols, the plain name, hardening, no dependency but the C
# and C++ run-time libraries.
#   BinaryTest.sh LIBRARY EXPORT_LIST
set -eu
export LC_ALL=C.UTF-8
fail() {
    echo "$1" >&2
    exit 1
}

diff -u <(sed -n '/global:/,/local:/s/^ *\([[:alnum:]_]\{1,\}\);.*/\1/p' "$2" | sort) \
    <(nm -D --defined-only "$1" | awk '{ print $3 }' | sort) ||
    fail "symbols: - is listed but not exported, + is exported but not listed"

headers=$(readelf -dlW "$1")
grep -q 'SONAME.*\[libErrorHandlerDll\.so\]$' <<<"$headers" || fail "the soname is not the plain file name"
grep -q 'FLAGS_1.*NOW' <<<"$headers" || fail "symbols are bound lazily"
! grep -q 'TEXTREL' <<<"$headers" || fail "text relocations"
# Objects that need construction stand in one unit, where their order is defined; the other one is the compiler's own.
grep -q '(INIT_ARRAYSZ) *16 (bytes)' <<<"$headers" || fail "more or less than one unit has initialisers"
grep -q 'GNU_RELRO' <<<"$headers" || fail "the relocated data stays writable"
grep -q 'GNU_STACK.* RW ' <<<"$headers" || fail "the stack is executable"
! grep 'NEEDED' <<<"$headers" | grep -vE '\[(libstdc\+\+|libgcc_s|libc|libm|ld-linux-x86-64)\.so\.' ||
    fail "needs the libraries above"
