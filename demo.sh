#!/bin/sh
# Installs what is missing, builds the library and the example host, lets the host read FILE... (or the samples) and shows its
# log. Exit status: 0 done; 1 something failed, or a FILE holds a faulty zone; 2 a FILE cannot be read.
#   ./demo.sh [FILE...]
set -eu
export LC_ALL=C.UTF-8
root=$(cd "$(dirname "$0")" && pwd) # FILE... stay relative to the caller's folder, so there is no cd here

verdict="FAILED: the demo did not run to its end"
trap 'echo "demo.sh: $verdict"' EXIT

samples=false
if [ $# -eq 0 ]; then
    samples=true
    set -- "$root"/examples/mrz_reader/samples/*
fi

for file in "$@"; do
    problem=
    if [ ! -e "$file" ]; then
        problem="there is no such file"
    elif [ -d "$file" ]; then
        problem="this is a folder, not a file"
    elif [ ! -r "$file" ]; then
        problem="it cannot be read"
    fi
    if [ -n "$problem" ]; then
        verdict="NOTHING DONE: $file: $problem"
        exit 2
    fi
done

"$root/tools/setup.sh"
"$root/tools/build.sh" release mrz_reader

logs=$root/build/demo-logs
rm -rf "$logs"
mkdir -p "$logs"

echo
status=0
"$root/build/release/examples/mrz_reader/mrz_reader" --log "$logs/mrz_reader.log" --max-file-size 8192 -- "$@" || status=$?
[ "$status" -le 1 ] || exit 1 # 1: it has read everything and found faults

echo
echo "The log files are in $logs:"
(cd "$logs" && wc -lc -- *)
# shellcheck disable=SC2012 # our own file names
newest=$(ls -v "$logs" | tail -n 1)
echo
shown=12 # lines of each end
if [ "$newest" = mrz_reader.1.log ] && [ "$(wc -l <"$logs/$newest")" -le $((2 * shown)) ]; then
    echo "$newest reads:"
    cat "$logs/$newest"
else
    echo "mrz_reader.1.log starts:"
    head -n $shown "$logs/mrz_reader.1.log"
    echo
    echo "$newest ends:"
    tail -n $shown "$logs/$newest"
fi
echo

if [ "$status" -eq 0 ]; then
    verdict="DONE: every zone is valid"
elif $samples; then
    verdict="DONE: the host read every sample; the damaged ones are reported above"
else
    verdict="FAULTY ZONES: the host ran to its end and reports them above"
    exit 1
fi
