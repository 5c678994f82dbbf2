#!/bin/sh
# The libraries that both compilers make export exactly the symbols of the export list, and are hardened.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
for preset in release clang; do
    tools/build.sh "$preset" ErrorHandlerDll
    tests/BinaryTest.sh "build/$preset/libErrorHandlerDll.so" ErrorHandlerDll/ErrorHandlerDll.map
done
