#!/bin/bash
# The unit tests of the release build under valgrind, which sees uninitialised reads that the sanitizers do not. Tests that fault
# on purpose, or that look at the stack and the memory map themselves, are left out: valgrind changes what they look at. So are
# those of many threads, of which valgrind runs one at a time, and one that formats two gigabytes.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh valgrind
tools/build.sh release
leftOut="LogLifeTest.*:*ClaimsTheLines*:*DoNotWaitForAReader*:FrameText.*:CrashDumpTest.*:CrashHandler.*:StackWalk.*:StructuredException.*:*SizeIsNoInt"
status=0
for program in build/release/tests/*Tests; do
    echo "${program##*/}"
    valgrind --quiet --child-silent-after-fork=yes --soname-synonyms=somalloc=nouserintercepts --error-exitcode=99 --leak-check=full \
        --errors-for-leak-kinds=definite "$program" --gtest_brief=1 --gtest_filter="-$leftOut" || status=1
done
exit $status
