#!/bin/sh
# The library as part of another project: built with Clang by the parent's rules, sanitizer included, and not installed with it
# unless that is asked for. Static builds are refused.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh cmake clang++
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "embedding: $*" >&2
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        fail "failed: $*"
    }
}
configure() { # OPTION...
    quietly cmake -S tests/embedding -B "$work/build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ "$@"
}
installed() {
    rm -rf "$work/prefix"
    quietly cmake --install "$work/build" --prefix "$work/prefix"
    (cd "$work/prefix" && find . -type f | sort | tr '\n' ' ')
}

configure -DBUILD_SHARED_LIBS=OFF
grep -q "ErrorHandlerDll is a shared library" "$work/log" || fail "nothing says that the library is shared all the same"
quietly cmake --build "$work/build" --parallel "${JOBS:-$(nproc)}"
(cd "$work" && "$work/build/host")
files=$(installed)
[ "$files" = "./bin/host " ] || fail "the parent installs $files"
configure -DERRORHANDLERDLL_INSTALL=ON
case $(installed) in
*./lib/libErrorHandlerDll.so*) ;;
*) fail "the library is not installed although the parent asks for it" ;;
esac

if cmake -S . -B "$work/static" -DBUILD_SHARED_LIBS=OFF -DBUILD_TESTING=OFF >"$work/log" 2>&1; then
    fail "BUILD_SHARED_LIBS=OFF is accepted"
fi
grep -q "shared library only" "$work/log" || fail "BUILD_SHARED_LIBS=OFF is refused without a reason"
echo "Embedded, installed on demand, and never static"
