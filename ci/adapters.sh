#!/bin/sh
# Each adapter against the Debian package of its library: built with both compilers and without a warning, then run.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh g++ clang++ pkg-config
tools/build.sh release ErrorHandlerDll
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
library=$PWD/build/release

build() # COMPILER TEST FLAGS...
{
    compiler=$1
    test=$2
    shift 2
    "$compiler" -std="${standard:-c++17}" -O1 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude "tests/adapters/$test.cpp" \
        -o "$work/$test" -L"$library" -Wl,-rpath,"$library" "$@" -lErrorHandlerDll -pthread &&
        (cd "$work" && "./$test")
}

status=0
for compiler in g++ clang++; do
    echo "$compiler:"
    # shellcheck disable=SC2046 # lists of words
    build "$compiler" SpdlogTest $(pkg-config --cflags --libs spdlog) || status=1
    # shellcheck disable=SC2046
    build "$compiler" GlogTest $(pkg-config --cflags --libs libglog) || status=1
    build "$compiler" BoostLogTest -DBOOST_LOG_DYN_LINK -lboost_log -lboost_thread || status=1
    # shellcheck disable=SC2046
    build "$compiler" LibusbTest $(pkg-config --cflags --libs libusb-1.0 | sed 's/-I/-isystem /g') || status=1
    # Neither compiler's library has std::format yet: fmt, which it was made from, stands in for it.
    standard=c++20 build "$compiler" FormatTest -isystem tests/adapters/format -DFMT_HEADER_ONLY || status=1
done
exit $status
