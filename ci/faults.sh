#!/bin/sh
# The short forms of the fault programs, on the library only: a broken promise fails. The peers' programs are run by hand.
set -eu
cd "$(dirname "$0")/.."

tools/build.sh faults
programs=build/faults/tools/fault_harness
"$programs/faults_calls_library"
