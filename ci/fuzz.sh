#!/bin/sh
# Each fuzzer for half a minute, or for as many seconds as the first argument says, from the seeds in harness/fuzz/corpus and from
# what long runs have grown out of them. What makes one fail stays in build/fuzz/findings; new inputs stay in build/fuzz/corpus.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
seconds=${1:-30}

tools/build.sh fuzz
root=$PWD
mkdir -p build/fuzz/findings
if [ ! -d build/fuzz/corpus ]; then
    mkdir build/fuzz/corpus
    tar -xzf harness/fuzz/grown-corpus.tar.gz -C build/fuzz/corpus
fi
status=0
for seeds in harness/fuzz/corpus/*; do
    fuzzer=$(basename "$seeds")
    mkdir -p "build/fuzz/corpus/$fuzzer"
    echo "$fuzzer, $seconds s"
    log=build/fuzz/$fuzzer.log
    if ! "build/fuzz/harness/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=2000 -timeout=20 \
        -artifact_prefix="$root/build/fuzz/findings/$fuzzer-" "build/fuzz/corpus/$fuzzer" "$seeds" >"$log" 2>&1; then
        tail -n 40 "$log"
        status=1
    else
        tail -n 1 "$log"
    fi
done
exit $status
