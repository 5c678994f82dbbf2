#!/bin/sh
# Every source file is as clang-format would write it.
set -eu
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh clang-format
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

find QV ZelvoWinAPI ErrorHandlerDll include tests harness bench examples tools -type f \
    \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) >"$work/files" 2>/dev/null || true
if ! xargs -d '\n' clang-format --dry-run --Werror <"$work/files" 2>"$work/findings"; then
    sed -n 's/: error: .*//p' "$work/findings" | cut -d: -f1 | uniq >&2
    echo "format: clang-format fails or is missing, or the files above need clang-format -i" >&2
    exit 1
fi
echo "$(wc -l <"$work/files") files as they should be"
