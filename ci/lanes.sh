# Runs stages, two at a time: most of them wait, or use one processor. A script sources this file, calls stage for each of its
# stages and then run_stages. What a stage prints is shown whole and in the order of the list. Lines with "NOT RUN", and tests
# that ctest has skipped, are shown again at the end.
# shellcheck shell=bash
export LC_ALL=C.UTF-8
lanes=2
export JOBS=${JOBS:-$((($(nproc) + lanes - 1) / lanes))}
# Several builds compile the same files with the same options.
if command -v ccache >/dev/null; then
    export CCACHE_DIR=${CCACHE_DIR:-$PWD/build/ccache} CCACHE_DEPEND=1
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

names=()
commands=()
failed=()
shown=0
records=$(mktemp -d)
declare -A running=() # process group: number of the stage

stage() { # NAME COMMAND...
    names+=("$1")
    commands+=("$(printf '%q ' "${@:2}")")
}

run_stage() { # NUMBER
    local status=0 TIMEFORMAT='%R %U %S'
    { time eval "${commands[$1]}" >"$records/$1.output" 2>&1 || status=$?; } 2>"$records/$1.time"
    echo "$status" >"$records/$1.status"
}

# Those of which all before them are done.
show_stages() {
    local name verdict
    while [ -e "$records/$shown.status" ]; do
        name=${names[$shown]}
        verdict=passed
        if [ "$(cat "$records/$shown.status")" -ne 0 ]; then
            verdict=FAILED
            failed+=("$name")
        fi
        printf '\n=== %s\n' "$name"
        cat "$records/$shown.output"
        awk -v verdict=$verdict -v name="$name" '{ printf "=== %s: %s (%.0f s)\n", name, verdict, $1
            printf "%-7s %5.0f s %9.0f s  %s\n", verdict, $1, $2 + $3, name >>table }' table="$records/table" "$records/$shown.time"
        sed -nE 's/^[[:blank:]]+[0-9]+ - (.*) \(Skipped\)$/NOT RUN: \1/; /NOT RUN/p' "$records/$shown.output" >>"$records/not_run"
        shown=$((shown + 1))
    done
}

verdict() { # LAST_LINE
    show_stages
    printf '\nstage     time processor  name\n'
    cat "$records/table"
    if [ -s "$records/not_run" ]; then
        sort -u "$records/not_run"
    else
        echo "Nothing was left out."
    fi
    rm -rf "$records"
    echo "$1 ($SECONDS s)"
}

stop_early() {
    local group name
    trap '' INT TERM
    for group in "${!running[@]}"; do
        kill -TERM -- "-$group"
        echo "NOT RUN: to its end: ${names[${running[$group]}]}" >>"$records/not_run"
    done
    for name in "${names[@]:next}"; do
        echo "NOT RUN: $name" >>"$records/not_run"
    done
    wait 2>/dev/null
    verdict "$self: STOPPED"
    exit 1
}

run_stages() { # NAME_FOR_THE_VERDICT
    local next=0 group self=$1
    : >"$records/table"
    : >"$records/not_run"
    set -m # a process group for each stage, so that all of it can be ended
    trap stop_early INT TERM
    while [ $next -lt ${#names[@]} ] || [ ${#running[@]} -ne 0 ]; do
        while [ $next -lt ${#names[@]} ] && [ ${#running[@]} -lt $lanes ]; do
            run_stage $next &
            running[$!]=$next
            next=$((next + 1))
        done
        wait -n -p group
        [ -e "$records/${running[$group]}.status" ] || { # ended from outside
            echo "0 0 0" >"$records/${running[$group]}.time"
            echo 1 >"$records/${running[$group]}.status"
        }
        unset "running[$group]"
        show_stages
    done
    if [ ${#failed[@]} -ne 0 ]; then
        verdict "$self: FAILED:$(printf ' [%s]' "${failed[@]}")"
        return 1
    fi
    verdict "$self: PASSED, ${#names[@]} stages"
}
