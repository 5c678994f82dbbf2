#!/bin/bash
# Runs every command of every page as it stands there. The tree is covered by an overlay and /var/log by an empty folder, seen by
# these processes only, so a page may install to DIR, remove old logs and signal the process "reader". Needs root or sudo, and the
# right to mount, which containers may withhold: then it says so, and nothing is run.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh unshare gdb lnav logrotate python3 pkg-config file
if [ "${1:-}" != --inside ]; then
    tools/build.sh release
    tools/build.sh package
    if [ "$(id -u)" -eq 0 ]; then asRoot=(); else asRoot=(sudo -n); fi
    if ! "${asRoot[@]}" unshare --mount mount -t tmpfs pages /mnt; then
        echo "NOT RUN: the commands of the pages, none of them: this machine does not let root mount"
        exit 0
    fi
    # Nothing may change beneath the overlay: other builds wait, as tools/build.sh says.
    exec 8>>build/release.log 9>>build/package.log
    flock 8
    flock 9
    "${asRoot[@]}" unshare --mount --pid --fork --mount-proc ci/pages.sh --inside
    exit
fi

fail() {
    echo "pages: $*" >&2
    exit 1
}
root=$PWD
work=$(mktemp -d)
trap 'umount -l "$work"; rmdir "$work"' EXIT
mount -t tmpfs pages "$work"
mkdir "$work/upper" "$work/work" "$work/home" "$work/bin"
mount -t overlay pages -o "lowerdir=$root,upperdir=$work/upper,workdir=$work/work" "$root"
mount -t tmpfs pages /var/log
cd "$root"

# What the pages take for given: a host with its logs, one of its dumps, its core file; an editor's folder for a C host; a
# journal. The viewer is kept from waiting for keys.
ln -s "$root/DIR" "$work/prefix" # a blank in a path would end a flag of pkg-config's
export HOME=$work/home TERM=dumb PATH=$work/bin:$PATH PKG_CONFIG_PATH=$work/prefix/lib/pkgconfig
echo "source $root/packaging/gdb/errorhandlerdll.py" >"$HOME/.gdbinit"
lnav -i packaging/lnav/errorhandlerdll.json >/dev/null
printf '#!/bin/sh\nexec %s -n "$@"\n' "$(command -v lnav)" >"$work/bin/lnav"
printf '#!/bin/sh\nsed "s/^/Nov 23 12:00:00 host reader[4711]: /" "%s/dump"\n' "$work" >"$work/bin/journalctl"
chmod +x "$work/bin/lnav" "$work/bin/journalctl"
(cd "$work" && "$root/build/release/examples/crash_handler" >dump || true) 2>/dev/null
cp "$work/crash_handler.log" reader.log
cp tests/consumer/CHost.c host.c
g++ -std=c++17 -g -Iinclude tests/logtools/RotatingHost.cpp -o reader "-Wl,-rpath,$root/build/release" \
    build/release/libErrorHandlerDll.so
./reader "$root/reader.log" 60 4096
mkdir /var/log/reader
for number in $(seq 12); do
    echo line >"/var/log/reader/reader.$number.log"
done
./reader "$work/living.log" 100000 &
living=$!
sleep 0.5
gdb -nx -batch -p "$living" -ex "generate-core-file core" >"$work/gdb" 2>&1 || fail "no core file: $(cat "$work/gdb")"

python3 ci/run_pages.py
[ "$(find /var/log/reader -type f | wc -l)" -eq 10 ] || fail "of the series, not the newest ten are left: $(ls /var/log/reader)"
kill "$living"

# The configuration for logrotate, as it stands: no line is lost or doubled while the host goes on.
awk '/^```logrotate$/ { inside = 1; next } /^```$/ { inside = 0 } inside' docs/rotation.md >"$work/logrotate.conf"
rm -f /var/log/reader/*
./reader /var/log/reader/reader.log 700 &
host=$!
for _ in 1 2 3; do
    sleep 0.4
    logrotate --force --state "$work/state" "$work/logrotate.conf" || fail "logrotate refuses the configuration of rotation.md"
done
wait "$host"
[ "$(find /var/log/reader -name 'reader.log.[0-9]*' | wc -l)" -eq 3 ] || fail "nothing was rotated: $(ls /var/log/reader)"
zcat -f /var/log/reader/* | grep -o 'entry [0-9]*' | sort -k 2n | diff - <(seq -f 'entry %g' 700) >"$work/diff" ||
    fail "lines are lost or doubled under logrotate: $(cat "$work/diff")"
echo "logrotate: 700 entries through 3 rotations, each once"
