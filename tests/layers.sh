#!/bin/sh
# layers.sh: do includes lead only from the folders above to those below? And is every line of the code at
# most 100 columns long, comments included, which clang-format does not break?
cd "$(dirname "$0")/.." || exit 1
status=0

knows() { # FOLDER [FOLDER BELOW...]
    upper=$1
    for folder in module common sockets tools tests bench fuzz examples; do
        case " $* " in *" $folder "*) continue ;; esac
        for header in "$folder"/*.h; do
            name=${header##*/}
            [ ! -e "$upper/$name" ] || continue
            # A path may lead to it, too.
            ! grep -nE "^ *# *include +[<\"]([^\">]*/)?$name[\">]" "$upper"/*.[ch]* ||
                { echo "$upper/ may not know $header" && status=1; }
        done
    done
}
knows common
knows sockets
knows module common sockets
knows tools module common sockets
knows bench module common sockets
knows examples module sockets
knows fuzz tools module common sockets tests
knows tests tools module common sockets

# In characters, not in bytes.
long=$(for folder in module common sockets tools tests bench fuzz examples; do
    LC_ALL=C.UTF-8 grep -nE '^.{101}' "$folder"/*.[ch]*
done)
[ -z "$long" ] || { printf '%s\n' "$long" "longer than 100 columns" && status=1; }
exit "$status"
