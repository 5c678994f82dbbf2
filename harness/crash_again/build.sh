#!/bin/sh
# Builds the hosts and their plug-ins, against the library in BUILD and the one under the address sanitizer in ASAN_BUILD:
#   harness/crash_again/build.sh BUILD ASAN_BUILD
set -eu
library=$(cd "$1" && pwd)
sanitized=$(cd "$2" && pwd)
cd "$(dirname "$0")"
folder=$library/crash_again
mkdir -p "$folder"

gcc="g++ -fnon-call-exceptions -fno-inline -finstrument-functions -finstrument-functions-exclude-file-list=/usr"
clang="clang++ -finstrument-functions-after-inlining"

# plugin NAME FRAME_SIZE
plugin() {
    $gcc -std=c++20 -O1 -g -fPIC -shared -Wl,-soname,"$1" -DFRAME_SIZE="$2" Plugin.cpp -o "$folder/$1"
}
# host NAME LIBRARY COMPILER...
host() {
    name=$1 built=$2
    shift 2
    "$@" -std=c++20 -g -Wall -Wextra -Wno-infinite-recursion -Wno-array-bounds -Wno-unused-but-set-variable -I../../include Host.cpp -o "$folder/$name" "$built/libErrorHandlerDll.so" \
        -Wl,-rpath,"$built",--export-dynamic-symbol='__cyg_profile_*' -pthread
}
plugin plugin.so 128
plugin first.so 256
plugin second.so 1256
# shellcheck disable=SC2086 # a command
{
    host host-O1 "$library" $gcc -O1 &
    host host-O0 "$library" $gcc -O0
    host host-O3 "$library" $gcc -O3 -Wl,-z,now &
    host host-nopie "$library" $gcc -O2 -no-pie -fno-pie
    host host-clang "$library" $clang -O2 -Wl,-z,now &
    host asan "$sanitized" $gcc -O1 -fsanitize=address,undefined
    wait
}
strip -o "$folder/host-stripped" "$folder/host-O3"
