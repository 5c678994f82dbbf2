#!/bin/sh
# Copies the pages as a machine needs them that has only the packages: install-pages.sh DOCS FOLDER. Names of the source tree
# become those of the packages; links to what is not installed become plain text.
set -eu
export LC_ALL=C.UTF-8
mkdir -p "$2"
for page in "$1"/*.md; do
    sed -E -e 's#tools/symbolize_dump\.py#errorhandlerdll-symbolize#g' \
        -e 's#`packaging/gdb/errorhandlerdll\.py`#the package `liberrorhandlerdll-dbgsym`#g' \
        -e 's#packaging/(rsyslog|syslog-ng)/#/usr/share/doc/errorhandlerdll-tools/examples/\1/#g' \
        -e 's#\]\(\.\./examples/#](EXAMPLES/#g' \
        -e 's#\[([^]]*)\]\(\.\./[^)]*\)#\1#g' \
        -e 's#\]\(EXAMPLES/#](../liberrorhandlerdll-dev/examples/#g' \
        -e 's#(^|[^][/A-Za-z0-9_.-])examples/([a-z])#\1/usr/share/doc/liberrorhandlerdll-dev/examples/\2#g' \
        "$page" >"$2/${page##*/}"
    chmod 644 "$2/${page##*/}"
done
