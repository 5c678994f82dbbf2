#!/bin/bash
# rsyslog and syslog-ng, run with the sample configurations as this user and in folders of their own, make one message of each
# entry, while the host that writes them goes from file to file: ci/shipping.sh [rsyslog|syslog-ng]...
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
PATH=$PATH:/usr/sbin tools/need.sh rsyslogd faketime g++ apt-get
tools/build.sh release ErrorHandlerDll
[ $# -ne 0 ] || set -- rsyslog syslog-ng
work=$(mktemp -d)
daemons=()
stopDaemons() {
    local daemon
    for daemon in "${daemons[@]}"; do
        kill "$daemon" 2>/dev/null || true
        wait "$daemon" 2>/dev/null || true
    done
    daemons=()
}
cleanUp() {
    stopDaemons
    rm -rf "$work"
}
trap cleanUp EXIT

ci/log-sample.sh "$work"
g++ -std=c++17 -Iinclude tests/logtools/RotatingHost.cpp -o "$work/host" \
    "-Wl,-rpath,$PWD/build/release" build/release/libErrorHandlerDll.so

# Debian installs one of the two at most. The other one is unpacked beside; setup.sh sees to the libraries that it needs.
unpacked=$PWD/build/syslog-ng
findSyslogNg() {
    command -v syslog-ng >/dev/null && return
    if [ ! -x "$unpacked/usr/sbin/syslog-ng" ]; then
        rm -rf "$unpacked"
        mkdir -p "$unpacked"
        (cd "$unpacked" && { apt-get -qq download syslog-ng-core || { apt-get -qq update && apt-get -qq download syslog-ng-core; }; } &&
            dpkg-deb -x syslog-ng-core_*.deb .) >"$work/download" 2>&1 || {
            cat "$work/download" >&2
            exit 1
        }
    fi
    local modules=("$unpacked"/usr/lib/syslog-ng/3.*)
    syslogNgOptions=(--module-path "${modules[0]}")
    export LD_LIBRARY_PATH=$unpacked/usr/lib/syslog-ng PATH=$PATH:$unpacked/usr/sbin
}

# Only the two paths of the sample are changed, and each must be there to be changed.
configure() { # SAMPLE PATH...
    local sample=$1 path
    shift
    for path in "$@"; do
        grep -qF "\"$path" "$sample" || {
            echo "shipping: $sample does not name $path" >&2
            exit 1
        }
    done
    sed -e "s|/var/log/reader-entries.json|$folder/entries.json|" -e "s|/var/log/reader\>|$folder/log|" "$sample"
}

startDaemon() { # NAME
    folder=$work/$1
    mkdir -p "$folder/log"
    # The files that are there when the daemon starts hold every form of entry; the host goes on behind the last of them.
    for file in "$work"/sample.*.log; do
        cp "$file" "$folder/log/reader${file#"$work/sample"}"
    done
    case $1 in
    rsyslog)
        {
            echo "global(workDirectory=\"$folder\")"
            configure packaging/rsyslog/errorhandlerdll.conf "/var/log/reader/reader.*.log" /var/log/reader-entries.json
        } >"$folder/conf"
        PATH=$PATH:/usr/sbin rsyslogd -n -f "$folder/conf" -i "$folder/pid" >"$folder/messages" 2>&1 &
        ;;
    syslog-ng)
        {
            echo "@version: 3.38"
            configure packaging/syslog-ng/errorhandlerdll.conf /var/log/reader '/var/log/reader-entries.json'
        } >"$folder/conf"
        syslogNgOptions=()
        findSyslogNg
        syslog-ng -F --no-caps -f "$folder/conf" -R "$folder/persist" -p "$folder/pid" -c "$folder/control" \
            "${syslogNgOptions[@]}" >"$folder/messages" 2>&1 &
        ;;
    esac
    daemons+=($!)
}

received() { if [ -e "$work/$1/entries.json" ]; then wc -l <"$work/$1/entries.json"; else echo 0; fi; }
written() { cat "$work/$1"/log/*.log | grep -c '^../../.. ..:..:..\....' || true; }

for name in "$@"; do
    startDaemon "$name"
done
hosts=()
for name in "$@"; do
    "$work/host" "$work/$name/log/reader.log" 700 8192 &
    hosts+=($!)
done
wait "${hosts[@]}"

# The limit only ends a run that has gone wrong.
for name in "$@"; do
    for ((tenths = 0; tenths < 600; ++tenths)); do
        [ "$(received "$name")" -lt "$(written "$name")" ] || break
        sleep 0.1
    done
done
sleep 1 # for what would come twice
stopDaemons
for name in "$@"; do
    mapfile -t files < <(ls -v "$work/$name"/log/*.log)
    [ ${#files[@]} -ge 15 ] || {
        echo "shipping: only ${#files[@]} files" >&2
        exit 1
    }
    printf '%s: ' "$name"
    tests/logtools/compare_entries.py messages "$work/$name/entries.json" "${files[@]}" || {
        cat "$work/$name/messages" >&2
        exit 1
    }
done
