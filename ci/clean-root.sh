#!/bin/bash
# The packages on a machine that has nothing else: a new Debian root, made by debootstrap from the machine's own package sources,
# in which a host is written, built, crashed and looked at by the installed pages' means alone. Not part of .ci/run: needs root,
# four minutes on an idle machine, and 1.5 GB in FOLDER.
#   ci/clean-root.sh [FOLDER]
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || {
    echo "clean-root: needs root" >&2
    exit 1
}
command -v debootstrap >/dev/null || {
    echo "clean-root: debootstrap is missing: apt-get install debootstrap" >&2
    exit 1
}
root=$(mktemp -d "${1:-/var/tmp}/clean-root.XXXXXX")
mounts=()
cleanUp() {
    local mounted
    for mounted in "${mounts[@]}"; do
        umount -l "$mounted"
    done
    rm -rf --one-file-system "$root"
}
trap cleanUp EXIT
fail() {
    echo "clean-root: $*" >&2
    exit 1
}
quietly() {
    "$@" >"$root.log" 2>&1 || {
        tail -n 40 "$root.log" >&2
        fail "failed: $*"
    }
    rm -f "$root.log"
}

tools/build.sh package
rm -rf build/package/packages
quietly cpack --preset package

# shellcheck disable=SC1091
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
# shellcheck disable=SC2016 # a format of apt-get's
mirror=$(apt-get indextargets --format '$(CODENAME) $(REPO_URI)' | awk -v suite="$suite" '$1 == suite { print $2; exit }')
start=$SECONDS
quietly debootstrap --variant=minbase "$suite" "$root" "$mirror"
cp -r /etc/apt/. "$root/etc/apt/"
mount -t proc proc "$root/proc" && mounts+=("$root/proc")
mount --rbind /dev "$root/dev" && mounts+=("$root/dev")
mount --make-rslave "$root/dev" # or its unmounting would reach the machine's own
echo "A bare $suite: $((SECONDS - start)) s, $(chroot "$root" dpkg-query -W | wc -l) packages"

start=$SECONDS
inRoot() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
mkdir "$root/packages"
cp build/package/packages/*.deb "$root/packages/"
quietly inRoot apt-get -qq update
# First the tools alone, as on the desk of someone who only reads logs.
quietly inRoot sh -c 'apt-get -qq -y install --no-install-recommends /packages/errorhandlerdll-tools_*.deb binutils'
inRoot errorhandlerdll-symbolize --help >/dev/null || fail "the tools do not run alone"
echo "errorhandlerdll-tools: $((SECONDS - start)) s, $(chroot "$root" dpkg-query -W | wc -l) packages"
start=$SECONDS
quietly inRoot sh -c 'apt-get -qq -y install --no-install-recommends /packages/*.deb g++ cmake make pkg-config gdb lnav vim man-db'
echo "All packages, compiler, gdb, lnav, vim: $((SECONDS - start)) s, $(chroot "$root" dpkg-query -W | wc -l) packages"

start=$SECONDS
cp tests/gdb/StoppedHost.cpp "$root/root/host.cpp"
cat >"$root/root/try.sh" <<'E2'
set -eux
cd /root
# The manual, and the pages: links lead somewhere.
man LogMessage | grep -q ZR_LOG_WARNING
mandb -q # as its timer does
man -k "crash dump" | grep -q errorhandlerdll-symbolize
cd /usr/share/doc/errorhandlerdll-tools
for link in $(sed 's/`[^`]*`//g' *.md | grep -o '](\(.[^):]*\))' | sed 's/^](//; s/)$//; s/#.*//'); do [ -e "$link" ]; done
cd /root
# The examples, as they lie; a dump with the library's own lines.
cmake -S /usr/share/doc/liberrorhandlerdll-dev/examples -B examples >/dev/null
cmake --build examples >/dev/null
examples/crash_handler >dump || true
gzip -k dump
errorhandlerdll-symbolize dump.gz | tee frames | grep 'main.cpp:'
grep 'LinuxStructuredException.cpp:' frames
# A core file, and what its process had not written.
g++ -g host.cpp -o host $(pkg-config --cflags --libs ErrorHandlerDll)
gdb -batch -ex "handle SIGXFSZ nostop" -ex "run host.log" -ex "generate-core-file core" ./host
gdb -batch -ex "errorhandlerdll last-error" -ex "errorhandlerdll tail" ./host core >tail
grep -q 'ZR_ERROR_CAMERA_OPEN (36)' tail
grep -q 'entry 150 of' tail
lnav -n -c ";SELECT count(*) FROM errorhandlerdll_log" host.log | grep '[1-9]'
vim -es -u NONE -i NONE -N --cmd "syntax on" -c 'call writefile([&filetype], "type")' -c 'qall!' host.log
[ "$(cat type)" = errorhandlerdll ]
# And nothing is left.
apt-get -qq -y purge liberrorhandlerdll errorhandlerdll-tools >/dev/null
! find / -xdev -ipath '*errorhandlerdll*' -not -path '/packages/*' -not -path '/root/*' -not -path '/proc/*' -not -path '/var/*' | grep .
E2
quietly inRoot sh /root/try.sh
echo "Manual, examples, dump, core file, lnav, vim, purge: $((SECONDS - start)) s"
