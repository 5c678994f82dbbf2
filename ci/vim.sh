#!/bin/bash
# vim knows a log by its content and marks up every part of an entry:
#   ci/vim.sh              with the files of the source tree
#   ci/vim.sh --installed  with those of the installed package
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh vim
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
runtime=(--cmd "set runtimepath^=$PWD/packaging/vim")
[ "${1:-}" != --installed ] || runtime=()
ci/log-sample.sh "$work"
cat "$work"/sample.*.log >"$work/all.log"

cat >"$work/list.vim" <<'E2'
let lines = [&filetype]
for number in range(1, line('$'))
  let names = map(range(1, col([number, '$']) - 1), {_, c -> synIDattr(synID(g:number, c, 1), 'name')})
  call add(lines, join(uniq(filter(names, {_, name -> name != ''})), ' '))
endfor
call writefile(lines, $LISTING)
qall!
E2
LISTING=$work/listing HOME=$work vim -u NONE -i NONE "${runtime[@]}" -N -es -V1 --cmd "syntax on" -S "$work/list.vim" \
    "$work/all.log" </dev/null >"$work/messages" 2>&1 || {
    cat "$work/messages" >&2
    exit 1
}

status=0
[ "$(head -n 1 "$work/listing")" = errorhandlerdll ] || {
    echo "vim: the log is taken for '$(head -n 1 "$work/listing")'" >&2
    status=1
}
expect() { # PATTERN-OF-GREP GROUPS: the lines that match, and no others, start with these groups
    local wanted found
    wanted=$(grep -nE -- "$1" "$work/all.log" | cut -d: -f1)
    found=$(tail -n +2 "$work/listing" | grep -nE -- "^$2( |$)" | cut -d: -f1)
    [ -n "$wanted" ] && [ "$wanted" = "$found" ] || {
        echo "vim: '$2' is on the lines ${found//$'\n'/ }, not ${wanted//$'\n'/ }" >&2
        status=1
    }
}
expect '^../../.. ..:..:..\.... - (ERROR|Level -)' 'ehdTime ehdError ehdThread'
expect '^../../.. ..:..:..\.... - WARNING' 'ehdTime ehdWarning ehdThread'
expect '^../../.. ..:..:..\.... - (DEBUG|Level [0-9])' 'ehdTime ehdDebug ehdThread'
expect '^([0-9A-F]{2} ){1,16} *: ' 'ehdHex'
expect '(ERROR|Level -).*\([0-9]+\) : .*\(\) - ' 'ehdTime ehdError ehdThread ehdSource'
expect '(ERROR|Level -).*(-{22}$|\] - .*\[caught\]|Structured exception|Fault address|(Call stack|Registers|Modules list|dump):$)' \
    'ehdTime ehdError ehdThread (ehdSource )?(ehdBlock|ehdDump)'
[ $status -ne 0 ] || echo "$(wc -l <"$work/all.log") lines marked up"
exit $status
