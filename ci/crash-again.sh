#!/bin/sh
# Hosts that fault again and again and go on: each dump is compared with the true call stack.
set -eu
cd "$(dirname "$0")/.."
tools/build.sh release ErrorHandlerDll
tools/build.sh asan-ubsan ErrorHandlerDll
harness/crash_again/build.sh build/release build/asan-ubsan
python3 -B harness/crash_again/crash_again.py build/release/crash_again "$@"
