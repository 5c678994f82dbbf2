#!/bin/sh
# Every source file is as clang-format would write it.
set -eu
cd "$(dirname "$0")/.."
differing=$(find QV ZelvoWinAPI ErrorHandlerDll include tests bench examples tools -type f \
    \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) -print0 2>/dev/null |
    xargs -0 clang-format --dry-run 2>&1 | sed -n 's/:.*Wclang-format-violations.*//p' | sort -u)
if [ -n "$differing" ]; then
    printf 'format: run clang-format -i on\n%s\n' "$differing" >&2
    exit 1
fi
