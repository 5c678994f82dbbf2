#!/bin/sh
# Every relative link of README.md, CONTRIBUTING.md and the pages here leads to something: CheckLinks.sh SOURCE_FOLDER [PAGE...]
set -eu
export LC_ALL=C.UTF-8
cd "$1"
shift
[ $# -ne 0 ] || set -- README.md CONTRIBUTING.md docs/*.md
status=0
for page in "$@"; do
    for link in $(sed 's/`[^`]*`//g' "$page" | grep -o '](\(.[^):]*\))' | sed 's/^](//; s/)$//; s/#.*//'); do
        if [ ! -e "$(dirname "$page")/$link" ]; then
            echo "$page: $link leads nowhere" >&2
            status=1
        fi
    done
done
exit $status
