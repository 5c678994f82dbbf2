#!/bin/sh
# Runs the example of README.md in a folder of its own; its log must read as the README shows it, but for time and thread.
#   CheckReadme.sh PROGRAM README
set -eu
export LC_ALL=C.UTF-8

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$work" && "$1")

normalise() {
    sed 's,^[0-9/]* [0-9:.]* - ,TIME - ,; s/ThreadID: [0-9]*/ThreadID: N/'
}
# The log is the README's second block, so between its third and fourth fence.
awk '/^```/ { ++fences; next } fences == 3' "$2" | normalise >"$work/shown"
normalise <"$work/reader.log" >"$work/written"
diff -u "$work/shown" "$work/written"
