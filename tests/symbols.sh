#!/bin/sh
# symbols.sh LIBRARY LIST: does the library export what is listed, and nothing else? To accept a change,
# see docs/packaging.md, and take the difference over into the list.
set -eu
found=$(LC_ALL=C nm -DC --defined-only --format=just-symbols "$1" | LC_ALL=C sort)
printf '%s\n' "$found" | diff -U 0 --label listed --label exported "$2" - >&2 ||
    { echo "$1: other symbols than in $2" >&2 && exit 1; }
