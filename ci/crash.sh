#!/bin/sh
# A short run of the crash harness: every deterministic case, some instructions inside the logger, a hundred random ones.
set -eu
cd "$(dirname "$0")/.."
tools/build.sh release ErrorHandlerDll
tools/crash_harness/build.sh build/release
python3 -B tools/crash_harness/crash_harness.py build/release/crash_harness --random 100 --steps 15
