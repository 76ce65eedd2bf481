#!/bin/sh
# isolate.sh COMMAND...: runs the command in a network of its own (loopback that can multicast) and with a
# /tmp of its own (private-tmp.sh): tests run side by side, and nothing that they send leaves the machine.
# Needs root.
set -eu
if [ "${QXV_ISOLATED:-}" != 1 ]; then
    export QXV_ISOLATED=1
    exec unshare --net --mount --propagation private "$0" "$@"
fi
ip link set lo up multicast on
ip route add 224.0.0.0/4 dev lo
# A route of type local: one of type multicast does not deliver on the loopback interface.
ip -6 route add local ff00::/8 dev lo
# The test may make mounts and networks of its own.
unset QXV_ISOLATED
exec "$(dirname "$0")/private-tmp.sh" "$@"
