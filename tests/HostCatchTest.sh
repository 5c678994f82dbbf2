#!/bin/sh
# A host, built by the given command, raises through the library and catches what it throws.
#   HostCatchTest.sh LIBRARY COMPILER [OPTION...]
set -eu
export LC_ALL=C.UTF-8
library=$1
host=$(dirname "$0")/consumer/CppHost.cpp
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$@" -o "$work/host" "$host" "$library" "-Wl,-rpath,$(dirname "$library")"
cd "$work"
./host
