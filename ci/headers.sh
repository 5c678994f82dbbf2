#!/bin/bash
# The public headers on their own, with nothing built: each compiles alone in C and C++, with both compilers and no warning; all
# of them together do in every standard, and in two units of one program; a line above the compile-time level leaves nothing behind; the
# snippets of docs/using.md compile. Adapters are tried where the other library is installed.
set -euo pipefail
export LC_ALL=C.UTF-8
cd "$(dirname "$0")/.."
tools/need.sh gcc g++ clang clang++ nm
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude -DBOOST_LOG_DYN_LINK -DSPDLOG_FMT_EXTERNAL)
inC="ErrorCodes ErrorHandlerDll Export Log Version"
status=0
: >"$work/failed"

compile() # COMPILER STANDARD FILE ARGUMENTS...
{
    echo . >>"$work/compiled"
    "$1" -std="$2" "${flags[@]}" "${@:4}" "$3" || {
        echo "headers: $1 -std=$2: $3 does not compile: $(head -n 1 "$3")" >&2
        echo . >>"$work/failed"
    }
}

for path in include/ErrorHandlerDll/*.h include/ErrorHandlerDll/adapters/*.h; do
    header=${path#include/}
    name=$(basename "$path" .h)
    other=$(grep -o '<\(spdlog\|glog\|boost\|libusb-1.0\)/[^>]*>' "$path" | head -n 1 | tr -d '<>' || true)
    if [ -n "$other" ] && [ ! -e "/usr/include/$other" ]; then
        echo "NOT RUN: $header is not compiled, as $other is not installed"
        continue
    fi
    printf '#include <%s>\n#include <%s>\nextern int gUnit;\n' "$header" "$header" | tee "$work/$name.cpp" >"$work/$name.c"
    # What a header lacks of its own shows with either compiler; what a standard lacks, with all of them together further down.
    compile g++ c++17 "$work/$name.cpp" -fsyntax-only &
    compile clang++ c++2b "$work/$name.cpp" -fsyntax-only
    wait
    if [[ " $inC " = *" $name "* ]]; then
        compile gcc c11 "$work/$name.c" -fsyntax-only
        compile clang c11 "$work/$name.c" -fsyntax-only
    fi
done

# Both units use everything; a second definition of anything shows when they are linked.
for path in include/ErrorHandlerDll/*.h; do
    echo "#include <${path#include/}>"
done >"$work/unit.h"
use='{ InstallCrashHandlers(); InstallTerminateHandler(); const CrashHandlerStack stack; ZR_TRACE_SCOPE();
  ZR_LOG_ONCE(1, 1, "%s", ZR_HERE); LogHex(1, 1, "", "", "ab"); return AtBoundary(ZR_HERE, [] {}); }'
for unit in First Second; do
    printf '#include "unit.h"\nZelvoReaderErrorCode %s();\nZelvoReaderErrorCode %s()\n%s\n' $unit $unit "$use" >"$work/$unit.cpp"
done
for compiler in g++ clang++; do
    compile $compiler c++17 "$work/First.cpp" -c -o "$work/First.o"
    compile $compiler c++17 "$work/Second.cpp" -c -o "$work/Second.o"
    for standard in c++20 c++2b; do
        compile $compiler $standard "$work/First.cpp" -fsyntax-only
    done
    "$compiler" -r -nostdlib "$work/First.o" "$work/Second.o" -o "$work/both.o" || status=1
done

# A line left out leaves neither text nor call, whether or not the compiler optimises.
cat >"$work/left_out.c" <<'END'
#include <ErrorHandlerDll/Log.h>
int Argument(void);
int LeftOut(void);
int LeftOut(void)
{
    return ZR_LOG(2, 1, "left out %d", Argument()) && ZR_LOG_ONCE(3, 1, "left out") && ZR_LOG_EVERY_N(2, 3, 1, "left out");
}
END
cp "$work/left_out.c" "$work/left_out.cpp"
for how in "gcc c11 c" "clang c11 c" "g++ c++17 cpp" "clang++ c++17 cpp"; do
    read -r compiler standard suffix <<<"$how"
    for optimisation in 0 2; do
        compile "$compiler" "$standard" "$work/left_out.$suffix" -O$optimisation -DZR_LOG_COMPILED_LEVEL=1 -c -o "$work/left_out.o"
        if nm "$work/left_out.o" | grep -E 'U .*(Argument|LogFormatted)' || grep -q 'left out' "$work/left_out.o"; then
            echo "headers: $compiler -O$optimisation: a line above the compile-time level leaves something behind" >&2
            status=1
        fi
    done
done
# What the format does not fit is an error in the macros, too.
for wrong in 'ZR_LOG(1, 1, "%d", "text")' 'ZR_LOG_ONCE(1, 1, "%s", 1)' 'ZR_LOG_EVERY_N(2, 1, 1, "%d")'; do
    printf '#include <ErrorHandlerDll/Log.h>\nvoid Wrong(void);\nvoid Wrong(void) { %s; }\n' "$wrong" >"$work/wrong.c"
    for compiler in gcc clang; do
        if "$compiler" -std=c11 "${flags[@]}" -fsyntax-only "$work/wrong.c" 2>"$work/findings" ||
            ! grep -qE 'W(error=)?format' "$work/findings"; then
            echo "headers: $compiler does not see what is wrong with $wrong" >&2
            status=1
        fi
    done
done

# Each block of the page is the body of a function; lines of "#include" go to the top.
awk '/^```cpp/ { inside = 1; print "void Snippet" ++n "();\nvoid Snippet" n "()\n{"; next } /^```/ && inside { inside = 0; print "}" }
    inside { print }' docs/using.md >"$work/blocks"
{ echo '#include <string>'; cat "$work/unit.h"; grep '^#include' "$work/blocks" || true; grep -v '^#include' "$work/blocks"; } >"$work/using.cpp"
[ "$(grep -c '^void Snippet.*)$' "$work/using.cpp")" -ge 8 ] || { echo "headers: docs/using.md has lost its snippets" >&2; status=1; }
for compiler in g++ clang++; do
    compile $compiler c++17 "$work/using.cpp" -fsyntax-only -I"$work"
done

echo "$(wc -l <"$work/compiled") compilations"
[ ! -s "$work/failed" ] && exit $status
exit 1
