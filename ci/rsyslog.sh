#!/bin/bash
# rsyslogd, run with the sample configuration as this user and in a folder of its own, makes one message of each entry.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
daemon=
stopDaemon() {
    if [ -n "$daemon" ]; then
        kill "$daemon" 2>/dev/null || true
        wait "$daemon" 2>/dev/null || true
        daemon=
    fi
}
cleanUp() {
    stopDaemon
    rm -rf "$work"
}
trap cleanUp EXIT

ci/log-sample.sh "$work"
mapfile -t files < <(ls -v "$work"/sample.*.log)
expected=$(cat "${files[@]}" | grep -c '^../../.. ..:..:......')

# Only the two paths of the sample are changed, and each must be there to be changed.
for path in /var/log/reader/reader.\*.log /var/log/reader-entries.json; do
    grep -qF "\"$path\"" packaging/rsyslog/errorhandlerdll.conf
done
{
    echo "global(workDirectory=\"$work\")"
    sed -e "s|/var/log/reader/reader|$work/shipped|" -e "s|/var/log/reader-entries.json|$work/entries.json|" \
        packaging/rsyslog/errorhandlerdll.conf
} >"$work/rsyslog.conf"

rsyslogd=$(PATH=$PATH:/usr/sbin command -v rsyslogd)
"$rsyslogd" -N1 -f "$work/rsyslog.conf" >"$work/check" 2>&1 || {
    cat "$work/check" >&2
    exit 1
}
# File by file, the first one before the start, so that the order of the messages is that of the entries. The limit only ends a
# run that has gone wrong.
received() { if [ -e "$work/entries.json" ]; then wc -l <"$work/entries.json"; else echo 0; fi; }
shipped=0
for number in "${!files[@]}"; do
    shipped=$((shipped + $(grep -c '^../../.. ..:..:......' "${files[number]}")))
    cp "${files[number]}" "$work/new"
    mv "$work/new" "$work/shipped.$((number + 1)).log"
    if [ -z "$daemon" ]; then
        "$rsyslogd" -n -f "$work/rsyslog.conf" -i "$work/pid" >"$work/daemon" 2>&1 &
        daemon=$!
    fi
    for ((tenths = 0; tenths < 600; ++tenths)); do
        [ "$(received)" -lt "$shipped" ] || break
        sleep 0.1
    done
    [ "$(received)" -ge "$shipped" ] || break
done
stopDaemon
[ "$(received)" -eq "$expected" ] || {
    cat "$work/daemon" >&2
    echo "rsyslog: $expected entries, $(received) messages" >&2
    exit 1
}
tests/logtools/compare_entries.py messages "$work/entries.json" "${files[@]}"
