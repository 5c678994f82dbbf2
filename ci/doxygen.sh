#!/bin/sh
# Doxygen reads the public headers without a warning.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh doxygen
mkdir -p build/doxygen
doxygen docs/Doxyfile
if [ -s build/doxygen/warnings ]; then
    cat build/doxygen/warnings >&2
    exit 1
fi
test -s build/doxygen/html/ErrorHandlerDll_8h.html
grep -q 'Writes one entry\.' build/doxygen/html/ErrorHandlerDll_8h.html || {
    echo "doxygen: the comments do not reach the pages" >&2
    exit 1
}
echo "the reference is in build/doxygen/html"
