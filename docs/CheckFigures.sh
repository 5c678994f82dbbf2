#!/bin/sh
# Chart and table of README.md show what bench/results.json holds: CheckFigures.sh SOURCE_FOLDER
set -eu
export LC_ALL=C.UTF-8
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$1/README.md" "$work/"
python3 "$1/bench/chart.py" "$1/bench/results.json" "$work/chart.svg" "$work/README.md"
cmp "$work/chart.svg" "$1/docs/images/benchmarks.svg"
diff "$work/README.md" "$1/README.md"
