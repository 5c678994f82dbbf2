#!/bin/sh
# Installs what is missing, builds the release preset and runs every test.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")"

verdict="FAILED: the tests did not run to their end"
trap 'echo "test.sh: $verdict"' EXIT

tools/setup.sh
tools/build.sh release
ctest --preset release --parallel "${JOBS:-$(nproc)}" || {
    verdict="FAILED: some tests fail, see above"
    exit 1
}
verdict="PASSED: all tests pass"
