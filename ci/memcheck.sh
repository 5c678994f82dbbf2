#!/bin/sh
# The quick tests under valgrind, which sees uninitialised reads that the sanitizers do not. Tests that fault on purpose, or that
# look at the stack and the memory map themselves, are left out: valgrind changes what they look at. So are those of many threads:
# valgrind runs one at a time.
set -eu
cd "$(dirname "$0")/.."
tools/build.sh memcheck
ctest --preset memcheck --label-regex quick --exclude-regex "^(ConcurrencyTest|FrameText|SafeMemory|CrashDumpTest|CrashHandler|StackWalk|StructuredException)\.|WaitsForTheZone" --parallel "$(nproc)"
