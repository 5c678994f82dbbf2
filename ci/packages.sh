#!/bin/bash
# Builds the Debian packages, has lintian look for errors, installs them on this machine (dpkg -i, as root), builds and runs a
# C11 and a C++17 host against them by CMake and by pkg-config, and purges them again.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh cpack file lintian dpkg-deb mandb readelf addr2line pkg-config gdb lnav vim

work=$(mktemp -d)
installed=()
if [ "$(id -u)" -eq 0 ]; then asRoot=(); else asRoot=(sudo -n); fi

fail() {
    echo "packages: $*" >&2
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        fail "failed: $*"
    }
}
cleanUp() {
    if [ ${#installed[@]} -ne 0 ]; then
        "${asRoot[@]}" dpkg --purge "${installed[@]}" >"$work/purge" 2>&1 || cat "$work/purge" >&2
    fi
    rm -rf "$work"
}
trap cleanUp EXIT

folder=build/package/packages
rm -rf "$folder"
tools/build.sh package
quietly cpack --preset package
archives=("$folder"/*.deb)
names=()
for archive in "${archives[@]}"; do
    name=$(dpkg-deb -f "$archive" Package)
    state=$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null || true)
    [ "${state:-not-installed}" = not-installed ] || fail "$name is installed on this machine; purge it first"
    names+=("$name")
done
echo "Built ${names[*]}"

lintianOptions=(--fail-on "error,warning" --tag-display-limit 0)
[ "$(id -u)" -ne 0 ] || lintianOptions+=(--allow-root)
quietly lintian "${lintianOptions[@]}" "${archives[@]}"
echo "lintian: no errors, no warnings but those explained in packaging/debian/lintian"

installed=("${names[@]}")
quietly "${asRoot[@]}" dpkg -i "${archives[@]}"
library=$(dpkg -L liberrorhandlerdll | grep '/libErrorHandlerDll\.so$')

# The debug information belongs to the library that was installed, and the library carries none itself. Not grep -q: it leaves
# before the writer has ended, whose status then counts as a failure.
buildId=$(readelf -n "$library" | sed -n 's/^ *Build ID: //p')
debugFile=/usr/lib/debug/.build-id/${buildId:0:2}/${buildId:2}.debug
readelf -S "$library" | grep '\.debug_info' >"$work/found" && fail "$library carries debug information"
readelf -S "$debugFile" | grep '\.debug_info' >"$work/found" || fail "$debugFile carries no debug information"
symbolised=$(addr2line -e "$debugFile" "0x$(nm -D "$library" | awk '$3 == "LogMessage" { print $1 }')")
case $symbolised in
./ErrorHandlerDll/*.cpp:[0-9]*) echo "LogMessage is at $symbolised" ;;
*) fail "LogMessage is not found in $debugFile: $symbolised" ;;
esac

# From the archives, not from the machine: small installations of Debian leave documentation out.
for archive in "${archives[@]}"; do
    quietly dpkg-deb -x "$archive" "$work/tree"
done
quietly mandb --create "$work/tree/usr/share/man"
for page in LogMessage SetErrorCallback LoggingSettings ErrorHandlerDll errorhandlerdll-symbolize; do
    man -M "$work/tree/usr/share/man" "$page" | grep "^${page}(\|[ ,]${page}[ ,]" >"$work/found" || fail "man $page shows no page"
done
man -M "$work/tree/usr/share/man" -k "crash dump" >"$work/found" || fail "man -k finds no page on crash dumps"
find "$work"/tree/usr/share/man/man? -name '*.gz' >"$work/pages"
while read -r page; do
    warnings=$(man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page: $warnings"
done <"$work/pages"
echo "$(wc -l <"$work/pages") man pages"

# Links of the installed pages lead somewhere; names of the source tree are left only where the page is about it.
documents=$work/tree/usr/share/doc
docs/CheckLinks.sh "$documents/errorhandlerdll-tools" "$documents"/errorhandlerdll-tools/*.md || fail "dead links"
grep -nE '(^|[^[/])(tools/symbolize|examples/[a-z]|packaging/(lnav|rsyslog|syslog-ng|gdb|vim))' "$documents"/errorhandlerdll-tools/*.md &&
    fail "these lines name files of the source tree"
find "$work/tree" -type d -empty -not -path '*/man/cat?' >"$work/found"
[ ! -s "$work/found" ] || fail "empty folders: $(cat "$work/found")"

runHosts() # FOLDER
{
    local host loaded
    for host in CHost CppHost; do
        loaded=$(ldd "$1/$host" | awk '$1 == "libErrorHandlerDll.so" { print $3 }')
        [ "$loaded" -ef "$library" ] || fail "$host loads '$loaded' instead of $library"
        (cd "$work" && "$1/$host")
    done
}
echo "CMake:"
quietly cmake -S tests/consumer -B "$work/cmake"
quietly cmake --build "$work/cmake"
runHosts "$work/cmake"
echo "pkg-config:"
read -ra compilerFlags <<<"$(pkg-config --cflags ErrorHandlerDll)"
read -ra libraries <<<"$(pkg-config --libs ErrorHandlerDll)"
mkdir "$work/pkg-config"
quietly gcc -std=c11 "${compilerFlags[@]}" tests/consumer/CHost.c -o "$work/pkg-config/CHost" "${libraries[@]}"
quietly g++ -std=c++17 "${compilerFlags[@]}" tests/consumer/CppHost.cpp -o "$work/pkg-config/CppHost" "${libraries[@]}"
runHosts "$work/pkg-config"

# The examples as they lie there.
quietly cmake -S "$documents/liberrorhandlerdll-dev/examples" -B "$work/examples"
quietly cmake --build "$work/examples" --parallel "${JOBS:-$(nproc)}"
(cd "$work" && quietly "$work/examples/minimal_cpp" && quietly "$work/examples/mrz_reader/mrz_reader" --log mrz.log -- \
    "$documents"/liberrorhandlerdll-dev/examples/mrz_reader/samples/td*.txt)
for _ in first second; do
    (cd "$work" && quietly python3 "$documents/liberrorhandlerdll-dev/examples/python/host.py")
done

# A dump, symbolised by the installed tool, in a folder that has nothing of the source tree: the library's own frame needs the
# package of the debug symbols.
(cd "$work" && examples/crash_handler >dump || true) 2>/dev/null
(cd "$work" && errorhandlerdll-symbolize dump >frames) || fail "$(cat "$work/frames")"
grep 'StructuredException.* at ErrorHandlerDll/LinuxStructuredException.cpp:[0-9]' "$work/frames" >"$work/found" ||
    fail "no line of the library: $(cat "$work/frames")"
find /usr/share/errorhandlerdll -name '*.pyc' >"$work/found"
[ ! -s "$work/found" ] || fail "the tool leaves files behind"
ci/gdb.sh --installed
ci/vim.sh --installed
ci/lnav.sh --installed

files=$(dpkg -L "${names[@]}" | sort -u)
installed=()
quietly "${asRoot[@]}" dpkg --purge "${names[@]}"
for file in $files; do
    [ -d "$file" ] || [ ! -e "$file" ] || fail "$file is left behind by the purge"
done
echo "Purged without a trace"
