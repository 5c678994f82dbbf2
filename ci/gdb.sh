#!/bin/bash
# gdb shows what a process that was stopped, and its core file, had not written yet, and names codes and exceptions:
#   ci/gdb.sh              with the release build
#   ci/gdb.sh --installed  with the installed packages, from which gdb must load its commands by itself
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh gdb g++
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "gdb: $*" >&2
    exit 1
}

loadCommands=()
if [ "${1:-}" = --installed ]; then
    flags=(-lErrorHandlerDll)
else
    tools/build.sh release ErrorHandlerDll
    flags=(-Iinclude "-Wl,-rpath,$PWD/build/release" build/release/libErrorHandlerDll.so)
    loadCommands=(-ex "source packaging/gdb/errorhandlerdll.py")
fi
g++ -std=c++17 -g tests/gdb/StoppedHost.cpp -o "$work/host" "${flags[@]}"

runGdb() { # OUTPUT ARGUMENTS: gdb's own messages are mixed with what the commands print
    local output=$1
    shift
    gdb -nx -batch -iex "set debuginfod enabled off" -iex "handle SIGXFSZ nostop noprint" "$@" >"$output" 2>&1 || fail "$(cat "$output")"
}
# Each line once, in the log or in memory, and the text of the last error.
check() { # OUTPUT
    grep -qx "ZR_ERROR_CAMERA_OPEN (36): $(sed -n 's/.*\[caught\]: //p' "$work/host.log")" "$1" || fail "no last error: $(cat "$1")"
    cat "$work/host.log" >"$work/lines"
    sed '1,/bytes are not in .*host\.log yet:$/d' "$1" >"$work/tail"
    cat "$work/tail" >>"$work/lines"
    grep -o 'entry [0-9]* of München' "$work/lines" >"$work/found" || true
    seq -f 'entry %g of München' 150 | diff - "$work/found" >"$work/diff" || fail "lines are missing: $(cat "$work/diff" "$1")"
    [ "$(grep -c entry "$work/tail")" -gt 50 ] || fail "the limit of the file had no effect"
}

commands=("${loadCommands[@]}" -ex "errorhandlerdll last-error" -ex "errorhandlerdll tail")
runGdb "$work/live" -ex "run $work/host.log" "${loadCommands[@]}" -ex "frame function main" -ex "print codes" -ex "print *exception" \
    -ex "generate-core-file $work/core" "${commands[@]}" "$work/host"
check "$work/live"
runGdb "$work/dead" "${commands[@]}" "$work/host" "$work/core"
check "$work/dead"

expected='{ZR_ERROR_NONE (0), custom error 0x10007, structured error 0xc0000005, invalid error 0x1f4}'
grep -qF "= $expected" "$work/live" || fail "codes are not shown as $expected: $(cat "$work/live")"
grep -q 'HalvikException = {code = ZR_ERROR_CAMERA_OPEN (36), message = "Unable to open the camera device", location = "StoppedHost - ", handled = true}' \
    "$work/live" || fail "the exception is not shown by its parts: $(cat "$work/live")"
echo "$(grep -c entry "$work/tail") lines of the log out of memory, from the process and from its core file"
