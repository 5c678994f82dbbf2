#!/bin/bash
# lnav takes the log format, and its own checker finds nothing wrong with it; it then reads a series that the library wrote:
# every entry is recognised, every field right, and the files are merged in time.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh lnav python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME=$work/home XDG_CONFIG_HOME=$work/home/config TERM=dumb
mkdir -p "$HOME"

fail() {
    echo "lnav: $*" >&2
    exit 1
}

[ "${1:-}" = --installed ] || lnav -i "$PWD/packaging/lnav/errorhandlerdll.json" >/dev/null
findings=$(lnav -C 2>&1) || fail "$findings"
[ -z "$findings" ] || fail "$findings"

ci/log-sample.sh "$work"
mapfile -t files < <(ls -v "$work"/sample.*.log)
mapfile -t backwards < <(ls -vr "$work"/sample.*.log)
[ ${#files[@]} -ge 3 ] || fail "the sample is no series"

query() # SQL RESULT
{
    lnav -n -c ";$1" -c ":write-json-to $2" "${backwards[@]}" >/dev/null
}
query "SELECT log_time, log_level, thread, file, line, function, log_body, log_text FROM errorhandlerdll_log" "$work/rows.json"
tests/logtools/compare_entries.py lnav "$work/rows.json" "${files[@]}"

# One error that passes an outer boundary, and one signal whose dump is written twice, the second time in an error block.
query "SELECT tag.value AS tag, count(*) AS entries FROM errorhandlerdll_log, json_each(log_tags) AS tag
       GROUP BY tag.value ORDER BY tag.value" "$work/tags.json"
tags=$(python3 -c 'import json, sys; print(*("%(tag)s=%(entries)d" % row for row in json.load(sys.stdin)))' <"$work/tags.json")
expected="#crash-dump=10 #error-block=3 #propagating=1"
[ "$tags" = "$expected" ] || fail "tags: expected $expected, found $tags"
echo "Tags: $tags"
