#!/bin/sh
# The host dies of SIGSEGV, not of an exit call, and leaves its dump in both places: CrashTest.sh PROGRAM
set -eu
export LC_ALL=C.UTF-8
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
ulimit -c 0
ulimit -s 1024 # full sooner

for argument in "" overflow; do
    rm -f crash_handler.log
    status=0
    "$1" $argument >output 2>errors || status=$?
    if [ "$status" -ne 139 ]; then
        echo "crash_handler $argument ended with $status, not with SIGSEGV" >&2
        exit 1
    fi
    for place in output crash_handler.log; do
        grep -q 'Structured exception Segmentation fault' "$place"
        grep -q 'reg\[22\]' "$place"
        grep -q 'libErrorHandlerDll.so$' "$place"
    done
done
