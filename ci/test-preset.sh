#!/bin/sh
# Builds a preset and runs all its tests: ci/test-preset.sh PRESET
set -eu
cd "$(dirname "$0")/.."
tools/build.sh "$1"
ctest --preset "$1" --parallel "$(nproc)"
