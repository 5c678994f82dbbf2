#!/bin/sh
# Copies the debug information of LIBRARY to where debuggers look for it below FOLDER: .build-id/NN/NNNN.debug
#   keep-debug.sh LIBRARY FOLDER
set -eu
export LC_ALL=C.UTF-8
buildId=$(readelf -n "$1" | sed -n 's/^ *Build ID: \([0-9a-f]*\)$/\1/p')
[ -n "$buildId" ] || {
    echo "keep-debug: $1 has no build id" >&2
    exit 1
}
rest=${buildId#??}
folder=$2/.build-id/${buildId%"$rest"}
rm -rf "$2" # files of earlier builds
mkdir -p "$folder"
objcopy --only-keep-debug --compress-debug-sections "$1" "$folder/$rest.debug"
chmod 644 "$folder/$rest.debug"
