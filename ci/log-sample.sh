#!/bin/sh
# Writes a log series with every form of entry, across a midnight of 3 December, whose month and day can be mistaken for each
# other: ci/log-sample.sh FOLDER gives FOLDER/sample.1.log and so on.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh faketime g++
tools/build.sh release ErrorHandlerDll
g++ -std=c++17 -Iinclude tests/logtools/RotatingHost.cpp -o "$1/RotatingHost" \
    "-Wl,-rpath,$PWD/build/release" build/release/libErrorHandlerDll.so
# Each reading of the clock is 71.7 ms after the one before.
faketime -f '@2026-12-03 23:59:55 i0.0717' "$1/RotatingHost" "$1/sample.log" >"$1/RotatingHost.out"
for date in 03/12/26 04/12/26; do
    grep -q "^$date 00:00:\|^$date 23:59:" "$1"/sample.*.log || {
        echo "log-sample: no entry of $date" >&2
        exit 1
    }
done
