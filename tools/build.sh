#!/bin/sh
# Configures and builds a preset, or some targets of it: tools/build.sh PRESET [TARGET...]. Quiet unless something fails.
set -eu
cd "$(dirname "$0")/.."

preset=$1
shift
[ $# -eq 0 ] || set -- --target "$@"

echo "Building preset $preset"
mkdir -p build
log=build/$preset.log
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" --parallel "$(nproc)" "$@"; } >"$log" 2>&1; then
    cat "$log" >&2
    echo "build: preset $preset failed, see above" >&2
    exit 1
fi
