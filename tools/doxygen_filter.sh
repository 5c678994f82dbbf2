#!/bin/sh
# The headers' comments as Doxygen wants them: a comment of its own line is marked, and so is one behind an enumerator or a
# field. Text with angle brackets, at and percent signs is meant as it stands.
export LC_ALL=C.UTF-8
sed -E -e '/^ *\/\//{s/([<>@%#])/\\\1/g; s,^( *)//( ?)(.*),\1/// \3,}' \
    -e 's,^( +[A-Za-z][^/]*[,;] +)// ,\1///< ,' "$1" | sed -E 's,^( *)/// ----.*,,; /^ *\/\/\/  /s,^( *)///(  .*),\1///    \2,'
