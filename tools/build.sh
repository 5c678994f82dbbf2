#!/bin/sh
# Configures and builds a preset, or some targets of it: tools/build.sh PRESET [TARGET...]. Quiet unless something fails. JOBS
# says how many files are compiled at a time, else there is one for each processor. Calls for the same preset wait for each other.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh cmake make c++ flock

preset=$1
shift
[ $# -eq 0 ] || set -- --target "$@"

log=build/$preset.log
{ mkdir -p build && (: >>"$log"); } 2>/dev/null || {
    echo "build: cannot write to $PWD/build" >&2
    exit 1
}
exec 9>>"$log"
flock 9
echo "Building preset $preset"
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" --parallel "${JOBS:-$(nproc)}" "$@"; } >"$log" 2>&1 9>&-; then
    cat "$log" >&2
    echo "build: preset $preset failed, see above" >&2
    exit 1
fi
