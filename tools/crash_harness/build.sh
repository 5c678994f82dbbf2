#!/bin/sh
# Builds the host of the crash harness against the library in FOLDER: tools/crash_harness/build.sh FOLDER
set -eu
library=$(cd "$1" && pwd)
cd "$(dirname "$0")"
folder=$library/crash_harness
mkdir -p "$folder"
# Without optimisation of calls: the cases must be what they look like.
flags="-std=c++20 -O1 -g -fno-optimize-sibling-calls -Wall -Wextra -I../../include"
# shellcheck disable=SC2086 # a list of words
${CXX:-g++} $flags Host.cpp Heap.cpp BackendOurs.cpp -o "$folder/host" "$library/libErrorHandlerDll.so" \
    -Wl,-rpath,"$library" -pthread
# shellcheck disable=SC2086
${CXX:-g++} $flags -shared -fPIC Plugin.cpp -o "$folder/plugin.so"
