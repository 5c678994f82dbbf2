#!/bin/sh
# Builds a preset and runs its tests, or those with a label: ci/test-preset.sh PRESET [LABEL]
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/build.sh "$1"
sed -n 's/^-- Left out/NOT RUN: left out/p' "build/$1.log"
ctest --preset "$1" ${2:+--label-regex "$2"} --parallel "${JOBS:-$(nproc)}"
