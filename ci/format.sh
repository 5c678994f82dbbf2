#!/bin/sh
# Every source file is as clang-format would write it.
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

find QV ZelvoWinAPI ErrorHandlerDll include tests bench examples tools -type f \
    \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) >"$work/files" 2>/dev/null || true
if ! xargs -d '\n' clang-format --dry-run --Werror <"$work/files" 2>"$work/findings"; then
    grep -v '^ ' "$work/findings" | cut -d: -f1,2 | uniq >&2
    echo "format: run clang-format -i on the files above" >&2
    exit 1
fi
echo "$(wc -l <"$work/files") files as they should be"
