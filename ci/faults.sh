#!/bin/sh
# The short forms of the fault programs, on the library only: a broken promise fails. The peers' programs are run by hand.
set -eu
cd "$(dirname "$0")/.."

tools/build.sh faults faults_short
programs=build/faults/tools/fault_harness
status=0
for program in faults_memory faults_calls_library faults_disk_library faults_processes_library faults_kills_library \
    faults_unwind; do
    "$programs/$program" || status=1
done
"$programs/faults_soak" || status=1
"$programs/faults_unload" build/faults/libErrorHandlerDll.so || status=1

# The heap and the threads under their sanitizers.
tools/build.sh asan-ubsan faults_memory faults_unwind
build/asan-ubsan/tools/fault_harness/faults_memory || status=1
build/asan-ubsan/tools/fault_harness/faults_unwind || status=1
tools/build.sh tsan faults_races
build/tsan/tools/fault_harness/faults_races || status=1
exit $status
