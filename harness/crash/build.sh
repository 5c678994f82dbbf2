#!/bin/sh
# Builds the hosts and their plug-ins, against the library in BUILD and the one under the address sanitizer in ASAN_BUILD:
#   harness/crash/build.sh BUILD ASAN_BUILD
set -eu
export LC_ALL=C
library=$(cd "$1" && pwd)
sanitized=$(cd "$2" && pwd)
cd "$(dirname "$0")"
../../tools/need.sh g++ clang++
folder=$library/crash
mkdir -p "$folder"
gcc="g++ -fnon-call-exceptions -fno-inline -finstrument-functions -finstrument-functions-exclude-file-list=/usr"
clang="clang++ -Wno-unknown-warning-option -finstrument-functions-after-inlining"
common="-std=c++20 -Wall -Wextra -Wno-infinite-recursion -Wno-array-bounds -Wno-nonnull -Wno-use-after-free -Wno-unused-but-set-variable -pthread -I../../include -I../../tests"

# shellcheck disable=SC2086 # lists of words, here and below
plugin() { # NAME FRAME_SIZE
    $gcc $common -O1 -fPIC -shared -Wl,-soname,"$1" -DFRAME_SIZE="$2" Plugin.cpp -o "$folder/$1"
}
# shellcheck disable=SC2086
host() { # NAME LIBRARY COMPILER...
    name=$1 built=$2
    shift 2
    "$@" $common Host.cpp ../../tests/support/Allocations.cpp -o "$folder/$name" "$built/libErrorHandlerDll.so" \
        -Wl,-rpath,"$built",--export-dynamic-symbol='__cyg_profile_*'
}
# shellcheck disable=SC2086
{
    host host-O1 "$library" $gcc -O1 & # which binds lazily
    host host-O3 "$library" $gcc -O3 -no-pie -fno-pie -s -Wl,-z,now
    host host-clang "$library" $clang -O2 -Wl,-z,now &
    host asan "$sanitized" $gcc -O1 -fsanitize=address,undefined
    plugin plugin.so 128
    plugin first.so 256
    plugin second.so 1256
    wait
}
