#!/bin/sh
# Installs the library, moves the installed tree, and builds and runs a C11 and a C++17 host against it: with CMake's package
# and with pkg-config.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh cmake pkg-config gcc clang
tools/build.sh release ErrorHandlerDll

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        exit 1
    }
}
runHosts() {
    (cd "$work" && "$1/CHost" && "$1/CppHost")
}

quietly cmake --install build/release --prefix "$work/runtime" --component Runtime
if [ "$(cd "$work/runtime" && find . -type f)" != ./lib/libErrorHandlerDll.so ]; then
    echo "consumer: the runtime component is more or less than lib/libErrorHandlerDll.so" >&2
    exit 1
fi
for component in Runtime Development; do
    quietly cmake --install build/release --prefix "$work/installed" --component "$component"
done
prefix=$work/moved
mv "$work/installed" "$prefix"

echo "CMake package:"
quietly cmake -S tests/consumer -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build "$work/build"
runHosts "$work/build"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
flags="-Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags ErrorHandlerDll)"
libraries="$(pkg-config --libs ErrorHandlerDll) -Wl,-rpath,$(pkg-config --variable=libdir ErrorHandlerDll)"
# shellcheck disable=SC2086 # lists of words
buildHosts() {
    quietly "$1" -std=c11 $flags tests/consumer/CHost.c -o "$work/CHost" $libraries
    quietly "$2" -std=c++17 $flags tests/consumer/CppHost.cpp -o "$work/CppHost" $libraries
}
echo "pkg-config, GCC:"
buildHosts gcc g++
runHosts "$work"
echo "pkg-config, Clang:"
buildHosts clang clang++
runHosts "$work"
