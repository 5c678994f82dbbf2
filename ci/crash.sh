#!/bin/sh
# Hosts that fault: again and again, at every stretch of a line that is written, at random, with every lock held. Each dump
# is compared with the true call stack.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
for tool in python3 valgrind; do
    command -v "$tool" >/dev/null || { echo "crash: $tool is missing (tools/setup.sh --checks)" >&2; exit 1; }
done
tools/build.sh release ErrorHandlerDll
tools/build.sh asan-ubsan ErrorHandlerDll
harness/crash/build.sh build/release build/asan-ubsan
python3 -B harness/crash/crash.py build/release/crash "$@"
