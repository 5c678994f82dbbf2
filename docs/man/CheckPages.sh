#!/bin/sh
# Every exported plain function has its page, and no page holds the text of a macro or a comment mark: CheckPages.sh PAGES MAP
set -eu
export LC_ALL=C.UTF-8
status=0
functions=$(sed -n '/global:/,/local:/s/^ *\([A-Z][A-Za-z]*\);.*/\1/p' "$2")
[ -n "$functions" ] || {
    echo "$2 names no function" >&2
    exit 1
}
for function in $functions; do
    grep -q "^\.TH $function 3 " "$1/man3/$function.3" || {
        echo "$function has no page" >&2
        status=1
    }
done
if grep -nE 'ERRORHANDLERDLL_(API|NORETURN|PRINTF)|^//|^#(ifndef|endif)' "$1"/man?/*; then
    status=1
fi
exit $status
