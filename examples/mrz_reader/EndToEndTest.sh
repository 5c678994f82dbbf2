#!/bin/bash
# Runs the built host, given as the argument, on the samples and on odd input; checks verdicts, exit status and log files.
set -u
export LC_ALL=C
host=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

Check() # DESCRIPTION COMMAND...
{
    local description=$1
    shift
    "$@" || { echo "FAILED: $description"; failures=$((failures + 1)); }
}

Status() # EXPECTED ARGUMENTS...
{
    local expected=$1
    shift
    "$host" "$@" >"$work/out" 2>"$work/err"
    local status=$?
    [ $status -eq "$expected" ] || { echo "status $status, expected $expected: $*"; return 1; }
}

LogFiles() # SERIES; its files in the order of their numbers
{
    ls -v "$work/$1".*.log
}

EachVerdictIsLoggedOnce()
{
    local verdict
    grep -v -e '^Log: ' -e '^Summary: ' "$work/out" | while read -r verdict; do
        [ "$(cat "$work"/all.*.log | grep -cF -- "Zone() - $verdict")" -eq 1 ] ||
            [ "$(cat "$work"/all.*.log | grep -cF -- "RefuseFile() - $verdict")" -eq 1 ] ||
            { echo "not logged once: $verdict"; return 1; }
    done
}

LogIsRotated() # SERIES LIMIT
{
    [ ! -e "$work/$1.log" ] && [ -s "$work/$1.1.log" ] && [ -s "$work/$1.2.log" ] || return 1
    local file
    for file in $(LogFiles "$1"); do
        [ "$(stat -c %s "$file")" -lt "$2" ] || { echo "$file reaches the limit"; return 1; }
    done
}

OpensAreLogged() # SERIES COUNT
{
    [ "$(cat "$work/$1".*.log | grep -c 'ReadFile() - Opening ')" -eq "$2" ]
}

cd "$here/samples" || exit 1

# The samples, a missing file and a folder.
Check "status of the samples" Status 1 --log "$work/all.log" --max-file-size 4096 --threads 3 -- * missing.txt .
Check "verdicts of the samples" diff <(grep -v '^Log: ' "$work/out") "$here/expected.txt"
Check "verdicts in the log" EachVerdictIsLoggedOnce
Check "hex dump in the log" grep -qh '^50 3C 55 54 4F 45 .* : P<UTOE' "$work"/all.*.log
Check "rotation" LogIsRotated all 4096
Check "log named" grep -qxF "Log: $(LogFiles all | tail -n 1)" "$work/out"

# A second run goes on behind the first, and less detail leaves no trace of files and bytes.
before=$(LogFiles all | tail -n 1)
cp "$before" "$work/before"
Check "status of valid zones" Status 0 --log "$work/all.log" --level 0 --max-file-size 100000 td1.txt td2.txt td3.txt
Check "old lines are kept" cmp -n "$(stat -c %s "$work/before")" "$work/before" "$before"
Check "filtered log" test "$(tail -n 1 "$before" | grep -c 'mrz_reader starts, log level 0$')" -eq 1

# More threads than files have zones, and more work than threads.
many=()
for i in {1..40}; do many+=(td1.txt several.txt crlf.txt); done
Check "status of many files" Status 0 --log "$work/many.log" --threads 8 --max-file-size 8192 "${many[@]}"
Check "summary of many files" grep -qx 'Summary: 120 file(s), 280 zone(s) valid, 0 fault(s)' "$work/out"
Check "every file opened once" OpensAreLogged many 120
Check "rotation of many files" LogIsRotated many 8192

# Odd files.
mkfifo "$work/pipe"
head -c 300000 /dev/zero | tr '\0' '<' >"$work/large"
Check "status of odd files" Status 1 --log "$work/odd.log" "$work/pipe" "$work/large" /dev/zero ''
Check "odd files refused" grep -qx 'Summary: 4 file(s), 0 zone(s) valid, 4 fault(s)' "$work/out"

# The work goes on without a log.
Check "status without a log" Status 0 --log "$work/missing/x.log" td3.txt
Check "missing log reported" grep -q 'cannot write the log' "$work/err"

# Command lines.
Check "help" Status 0 --help
for wrong in '' '--threads 0 td1.txt' '--threads 4x td1.txt' '--level high td1.txt' '--max-file-size -1 td1.txt' '--log' '--odd td1.txt'; do
    # shellcheck disable=SC2086
    Check "command line '$wrong'" Status 2 $wrong
done

[ $failures -eq 0 ] && echo "mrz_reader: all checks passed"
exit $((failures > 0))
