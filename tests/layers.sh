#!/bin/bash
# layers.sh: do includes lead only from the folders above to those below? And is every line of the code at
# most 100 columns long, comments included, which clang-format does not break?
cd "$(dirname "$0")/.." || exit 1
status=0
folders="module common sockets streams tools/* tools bench fuzz tests examples"
rooms=$(cd tools && echo */)

code() { find "$1" -maxdepth 1 -name '*.[ch]' -o -maxdepth 1 -name '*.cpp'; }

# The folder's files may include their own headers and those of the folders below, and no other header of
# ours, by whatever path.
knows() { # FOLDER [FOLDER BELOW...]
    upper=$1
    for folder in $folders; do
        case " $* " in *" $folder "*) continue ;; esac
        for header in "$folder"/*.h; do
            [ -e "$header" ] || continue
            name=${header##*/}
            [ ! -e "$upper/$name" ] || continue
            # shellcheck disable=SC2046 # our own names have no blanks
            ! grep -nE "^ *# *include +[<\"]([^\">]*/)?$name[\">]" $(code "$upper") /dev/null ||
                { echo "$upper/ may not know $header" && status=1; }
        done
    done
}
knows common
knows sockets
knows streams
knows module common sockets

# The tool's floors, from the ground up. Rooms of one floor do not know each other.
ground="common sockets streams module"
tool=
floor() { # ROOM...
    for room in "$@"; do
        # shellcheck disable=SC2086 # lists of words
        knows "tools/$room" $ground $tool
    done
    for room in "$@"; do tool="$tool tools/$room"; done
}
floor base
floor media
floor engine
floor commandline config reports terminal
floor page
floor commands
[ "$(echo $tool | wc -w)" = "$(echo $rooms | wc -w)" ] || { echo "not every room of tools/ has a floor" && status=1; }

knows bench module common sockets streams
knows examples module sockets
knows fuzz $ground $tool tests
knows tests $ground $tool

# In characters, not in bytes.
long=$(find module common sockets streams tools tests bench fuzz examples -name '*.[ch]' -o -name '*.cpp' |
    LC_ALL=C.UTF-8 xargs grep -nE '^.{101}')
[ -z "$long" ] || { printf '%s\n' "$long" "longer than 100 columns" && status=1; }
exit "$status"
