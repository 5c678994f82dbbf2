#!/bin/sh
# The adapters against the Debian packages of their libraries: built with both compilers and without a warning, then run.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh g++ clang++ pkg-config
tools/build.sh release ErrorHandlerDll
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
library=$PWD/build/release

# Neither compiler's library has std::format yet: fmt, which it was made from, stands in for it.
status=0
for compiler in g++ clang++; do
    echo "$compiler:"
    # shellcheck disable=SC2046 # lists of words
    "$compiler" -std=c++20 -O1 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude -Itests -isystem tests/adapters/format \
        tests/adapters/AdapterTest.cpp -o "$work/AdapterTest" "-L$library" "-Wl,-rpath,$library" -lErrorHandlerDll \
        -DBOOST_LOG_DYN_LINK $(pkg-config --cflags --libs spdlog libglog libusb-1.0 | sed 's/-I/-isystem /g') \
        -lboost_log -lboost_thread -lgtest_main -lgtest -pthread && "$work/AdapterTest" --gtest_brief=1 || status=1
done
exit $status
