#!/bin/sh
# Builds the host of the crash harness against the library in FOLDER, or with a peer of it:
#   tools/crash_harness/build.sh FOLDER [GLOG|SPDLOG|ABSEIL|BACKWARD|BOOST]
set -eu
library=$(cd "$1" && pwd)
peer=${2:-}
cd "$(dirname "$0")"
folder=$library/crash_harness$peer
mkdir -p "$folder"
# No optimisation of calls: the cases must be what they look like.
flags="-std=c++20 -O1 -g -fno-optimize-sibling-calls -Wall -Wextra -I../../include"
case $peer in
GLOG) libraries=-lglog ;;
SPDLOG) libraries="-lspdlog -lfmt -DSPDLOG_SHARED_LIB -DSPDLOG_COMPILED_LIB -DSPDLOG_FMT_EXTERNAL" ;;
ABSEIL) libraries=$(pkg-config --libs absl_failure_signal_handler absl_symbolize) ;;
BACKWARD) libraries=-ldl ;;
BOOST) libraries="-ldl -DBOOST_STACKTRACE_LINK -lboost_stacktrace_basic" ;;
*) libraries="$library/libErrorHandlerDll.so -Wl,-rpath,$library" ;;
esac
if [ -n "$peer" ]; then
    backend="BackendPeers.cpp -DPEER_$peer"
else
    backend=BackendOurs.cpp
fi
# shellcheck disable=SC2086 # lists of words
${CXX:-g++} $flags Host.cpp Cases.cpp Workload.cpp SignalStack.cpp Heap.cpp $backend -o "$folder/host" $libraries -pthread
# shellcheck disable=SC2086
${CXX:-g++} $flags -shared -fPIC Plugin.cpp -o "$folder/plugin.so"
