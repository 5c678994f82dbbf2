#!/bin/bash
# What shows most mistakes soonest, to run while working: less than three minutes when most is built. .ci/run is everything.
set -u
cd "$(dirname "$0")/.." || exit 1
exec </dev/null
tools/setup.sh --checks || exit 1
. ci/lanes.sh

stage "format" ci/format.sh
stage "include order" ci/include_order.py
stage "tests" ./test.sh
stage "Clang" ci/test-preset.sh clang quick
stage "export list" ci/export-list.sh
run_stages quick
