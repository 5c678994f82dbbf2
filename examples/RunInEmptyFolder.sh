#!/bin/sh
# Runs a program in an empty folder, which is removed afterwards: RunInEmptyFolder.sh PROGRAM [ARGUMENT...]
set -eu
export LC_ALL=C.UTF-8
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$@"
