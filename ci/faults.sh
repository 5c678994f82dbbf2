#!/bin/sh
# The short forms of all faults, two programs at a time: on the optimised build, and again for the heap and the threads under
# their sanitizers. A broken promise fails. The long forms: build/release/harness/faults/faults 10 [CASE...]
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."

for preset in release asan-ubsan tsan; do
    tools/build.sh "$preset" faults
done
# The full disk needs the right to mount.
rights=
unshare -m true 2>/dev/null || ! unshare -rm true 2>/dev/null || rights="unshare -rm"
run() {
    preset=$1
    shift
    # shellcheck disable=SC2086 # a list of words
    $rights "build/$preset/harness/faults/faults" 1 "$@"
}
log=build/faults.log
{ run release calls rotation unloading ends threads && run tsan races; } >"$log" 2>&1 &
status=0
run asan-ubsan memory threads || status=1
run release memory forks kills signals disk limit sharing changes || status=1
wait $! || status=1
cat "$log"
exit $status
