#!/bin/sh
# hardening.sh FILE...: are these libraries and programs compiled and linked as cmake/Options.cmake
# says? Names all that is missing.
set -u
export LC_ALL=C
status=0
checked=0

complain() {
    echo "$file: $1" >&2
    status=1
}
has() { printf '%s\n' "$contents" | grep -Eq "$1"; }

for file in "$@"; do
    contents=$(readelf -W --file-header --segments --dynamic --dyn-syms "$file") || exit 1
    has '^ +GNU_RELRO ' || complain "its relocations stay writable (no GNU_RELRO)"
    has '\(FLAGS(_1)?\).*NOW' || complain "its symbols are bound late (no BIND_NOW)"
    has '^ +GNU_STACK .* RW ' || complain "its stack is executable (GNU_STACK)"
    ! has 'TEXTREL' || complain "its code is relocated (TEXTREL)"
    has '^ +Type: +DYN ' || complain "it has a fixed address (not PIE)"
    has ' UND __stack_chk_fail(@|$)' || complain "no function checks its stack"
    ! has ' UND __[a-z]+_chk(@|$)' || checked=1
done
# A library in which the compiler can prove that every buffer suffices has no such call, but all are
# compiled with the same options.
file=$*
[ "$checked" = 1 ] || complain "no call checks its buffer (_FORTIFY_SOURCE)"
exit "$status"
