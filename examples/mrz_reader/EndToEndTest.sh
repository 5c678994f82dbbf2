#!/bin/bash
# Runs the built host, given as the argument, on the samples and on odd input; checks verdicts, exit status and log files.
set -u
export LC_ALL=C
# A sanitizer's finding would otherwise look like the host's own status 1, and its crash handler would follow the host's.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}exitcode=99:handle_segv=0
host=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
# The last error is one for the process, written without a lock: the documentation says so, and this host does not read it.
echo 'race:ExceptionHandler::' >"$work/suppressions"
export TSAN_OPTIONS=${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=$work/suppressions:handle_segv=0

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

Count() # SERIES TEXT; the log lines that hold the text
{
    cat "$work/$1".*.log | grep -acF -- "$2"
}

EachZoneIsLoggedOnce()
{
    local verdict
    grep ', zone ' "$work/out" | while read -r verdict; do
        [ "$(Count all "JudgeZone() - $verdict")" -eq 1 ] || { echo "not logged once: $verdict"; return 1; }
    done
}

# One block for each fault, one line for its way through the outer boundary, and the callback's count.
ErrorsAreReportedOnce() # COUNT
{
    local text
    for text in ' - ----------------------' '() - [caught]: ' '() - [propagating]: '; do
        [ "$(Count all "$text")" -eq "$1" ] || { echo "$(Count all "$text") lines with '$text'"; return 1; }
    done
    grep -q "$1 fault(s), $1 error(s), 1 warning(s)" "$work/out"
}

# The lines of a block follow each other; no other thread's line stands between them.
BlocksAreWhole()
{
    LogFiles many | xargs -d '\n' cat | awk '
        expected && index($0, expected) == 0 { print "block torn: " $0; bad = 1 }
        { expected = "" }
        / - ----------------------$/ { expected = "RaiseFault() - " }
        /RaiseFault\(\) - / { expected = "[caught]: " }
        END { exit bad }'
}

CrashIsDumped()
{
    grep -q 'Segmentation fault' "$work/out" && grep -q 'Fault address:  0x9300' "$work/out" &&
        grep -q 'RunIntoFault' "$work/out" &&
        [ "$(Count crash 'Fault address:  0x9300')" -eq 2 ] && [ "$(Count crash '() - Structured exception')" -eq 1 ]
}

LogIsRotated() # SERIES LIMIT
{
    [ ! -e "$work/$1.log" ] && [ -s "$work/$1.1.log" ] && [ -s "$work/$1.2.log" ] || return 1
    local file
    LogFiles "$1" | while read -r file; do
        [ "$(stat -c %s "$file")" -lt "$2" ] || { echo "$file reaches the limit"; return 1; }
    done
}

cd "$here/samples" || exit 1

# The samples, a missing file and a folder.
Check "status of the samples" Status 1 --log "$work/all.log" --max-file-size 4096 --threads 3 -- * missing.txt .
Check "verdicts of the samples" diff <(grep -v '^Log: ' "$work/out") "$here/expected.txt"
Check "verdicts in the log" EachZoneIsLoggedOnce
Check "errors of the samples" ErrorsAreReportedOnce 14
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
for i in {1..40}; do many+=(td1.txt several.txt damaged-check-digit.txt); done
Check "status of many files" Status 1 --log "$work/many.log" --threads 8 --max-file-size 8192 "${many[@]}"
Check "summary of many files" grep -qx 'Summary: 120 file(s), 160 zone(s) valid, 40 fault(s), 40 error(s), 0 warning(s)' "$work/out"
Check "every file opened once" test "$(Count many 'JudgeZones() - Opening ')" -eq 120
Check "blocks of many threads" BlocksAreWhole
Check "rotation of many files" LogIsRotated many 8192

# Odd files.
mkfifo "$work/pipe"
head -c 300000 /dev/zero | tr '\0' '<' >"$work/large"
Check "status of odd files" Status 1 --log "$work/odd.log" "$work/pipe" "$work/large" /dev/zero ''
Check "odd files refused" grep -qx 'Summary: 4 file(s), 0 zone(s) valid, 4 fault(s), 4 error(s), 0 warning(s)' "$work/out"

# The work goes on without a log.
Check "status without a log" Status 0 --log "$work/missing/x.log" td3.txt
Check "missing log reported" grep -q 'cannot write the log' "$work/err"

# A real fault: 139 is 128 and the number of SIGSEGV.
Check "status of a crash" Status 139 --log "$work/crash.log" --crash
Check "dump of a crash" CrashIsDumped

# Command lines.
Check "help" Status 0 --help
for wrong in '' '--threads 0 td1.txt' '--threads 4x td1.txt' '--level high td1.txt' '--max-file-size -1 td1.txt' '--log' '--odd td1.txt'; do
    # shellcheck disable=SC2086
    Check "command line '$wrong'" Status 2 $wrong
done

[ $failures -eq 0 ] && echo "mrz_reader: all checks passed"
exit $((failures > 0))
