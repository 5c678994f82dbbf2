#!/bin/sh
# The quick unit tests under valgrind, which sees uninitialised reads that the sanitizers do not.
set -eu
cd "$(dirname "$0")/.."
tools/build.sh memcheck
ctest --preset memcheck --label-regex quick --parallel "$(nproc)"
