#!/bin/sh
# private-tmp.sh [COMMAND...]: lays an empty /tmp over that of the caller's mount namespace, and runs the
# command. Where the checkout or the current directory lies below /tmp, the folder of /tmp that has it
# stays visible.
set -eu
checkout=$(cd "$(dirname "$0")/.." && pwd -P)
here=$(pwd -P)
cd /tmp # it stays the old one, from which relative paths lead on
mount -t tmpfs -o mode=1777 tmpfs /tmp
for path in "$checkout" "$here"; do
    case $path in /tmp/*) ;; *) continue ;; esac
    folder=${path#/tmp/}
    folder=${folder%%/*}
    [ ! -d "/tmp/$folder" ] || continue
    mkdir "/tmp/$folder"
    # As it is written: mount's own look-up of the path would find the empty folder.
    mount --no-canonicalize --rbind "./$folder" "/tmp/$folder"
done
cd "$here"
[ $# = 0 ] || exec "$@"
