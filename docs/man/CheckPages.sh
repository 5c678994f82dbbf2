#!/bin/sh
# Every exported plain function has its page, and no page holds the text of a macro or a comment mark: CheckPages.sh PAGES MAP
set -eu
status=0
for function in $(sed -n '/global:/,/local:/s/^ *\([A-Z][A-Za-z]*\);.*/\1/p' "$2"); do
    grep -q "^\.TH $function 3 " "$1/man3/$function.3" || status=1
done
if grep -nE 'ERRORHANDLERDLL_(API|NORETURN|PRINTF)|^//|^#(ifndef|endif)' "$1"/man?/*; then
    status=1
fi
exit $status
