#!/bin/sh
# Installs the Debian packages that a task needs and that are missing. Says beforehand what it installs, does nothing when all
# is there, and waits for no answer.
#   tools/setup.sh            for building, running and testing
#   tools/setup.sh --checks   also for every stage of .ci/run
set -eu
export LC_ALL=C.UTF-8

# make is named because the presets leave the generator to CMake's default.
packages="g++ make cmake libgtest-dev python3 binutils"
if [ "${1:-}" = --checks ]; then
    packages="$packages clang libclang-rt-dev clang-format clang-tidy llvm elfutils doxygen gdb pkg-config valgrind ccache"
    packages="$packages libspdlog-dev libgoogle-glog-dev libboost-log-dev libusb-1.0-0-dev" # peers of the adapters
    packages="$packages dpkg-dev file lintian man-db abigail-tools lnav rsyslog faketime" # packages and readers of logs
    packages="$packages gdb vim logrotate libivykis0 libjson-c5 libnet1 libpcre3 libwrap0" # the last five for an unpacked syslog-ng
fi

command -v dpkg-query >/dev/null || {
    echo "setup: no Debian packages here, so nothing is installed. Needed is what Debian has in: $packages"
    exit 0
}
missing=
for package in $packages; do
    state=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$state" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
    asRoot=
elif ! command -v sudo >/dev/null; then
    echo "setup: packages are missing, and there is neither root nor sudo to install them. Have this run as root:" >&2
    echo "apt-get install --no-install-recommends$missing" >&2
    exit 1
elif [ -t 0 ]; then
    asRoot=sudo
else
    asRoot="sudo -n" # nobody is there to type a password
fi
echo "Installing these Debian packages, and what they depend on:$missing"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
aptGet() {
    $asRoot env DEBIAN_FRONTEND=noninteractive apt-get -qq -y -o DPkg::Lock::Timeout=120 "$@" >>"$log" 2>&1
}
# shellcheck disable=SC2086 # a list of words
installMissing() {
    aptGet install --no-install-recommends $missing
}
# The package lists of a new machine may be absent or out of date: then a second try with fresh ones.
if ! installMissing; then
    if ! aptGet update || ! installMissing; then
        cat "$log" >&2
        echo "setup: the installation failed, see above. By hand, as root:" >&2
        echo "apt-get install --no-install-recommends$missing" >&2
        exit 1
    fi
fi
