#!/bin/sh
# Says in one line which commands are missing, and fails then: tools/need.sh COMMAND...
export LC_ALL=C.UTF-8
missing=
for command in "$@"; do
    command -v "$command" >/dev/null || missing="$missing $command"
done
[ -z "$missing" ] || {
    echo "missing:$missing; tools/setup.sh --checks installs what the checks need" >&2
    exit 1
}
