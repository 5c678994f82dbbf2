#!/bin/bash
# What a newcomer meets: demo.sh tells a wrong name from a faulty zone and shows a small log once, and without rights the set-up
# says which command is missing.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "demo: $*" >&2
    exit 1
}
expect() { # STATUS TEXT ARGUMENTS-OF-DEMO
    local wanted=$1 text=$2 status=0
    shift 2
    ./demo.sh "$@" >"$work/out" 2>&1 || status=$?
    [ $status -eq "$wanted" ] || fail "demo.sh $* ends with $status, not $wanted: $(cat "$work/out")"
    tail -n 1 "$work/out" | grep -qF "$text" || fail "demo.sh $* ends without '$text': $(cat "$work/out")"
}
samples=examples/mrz_reader/samples
expect 2 "no such file" "$samples/td1.txt" "$work/none"
expect 2 "a folder" "$work"
expect 1 "FAULTY ZONES" "$samples/damaged-composite.txt"
expect 0 "every zone is valid" "$samples/td1.txt"
grep '\[ThreadID' "$work/out" | sort | uniq -d >"$work/twice"
[ ! -s "$work/twice" ] || fail "lines are shown twice: $(cat "$work/twice")"
expect 0 "read every sample"

mkdir "$work/bin"
ln -s "$(command -v sh)" "$(command -v cat)" "$work/bin/"
printf '#!/bin/sh\necho 1000\n' >"$work/bin/id"
printf '#!/bin/sh\nexit 1\n' >"$work/bin/dpkg-query"
chmod +x "$work/bin/id" "$work/bin/dpkg-query"
if PATH=$work/bin tools/setup.sh >"$work/out" 2>&1; then fail "the set-up succeeds without rights"; fi
tail -n 1 "$work/out" | grep -q '^apt-get install .*g++' || fail "no command to copy: $(cat "$work/out")"
echo "demo.sh and setup.sh say what is wrong"
