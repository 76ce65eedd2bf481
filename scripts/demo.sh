#!/bin/sh
# demo.sh [FILE]: installs what is missing, builds, and sends a real transport stream through all 16
# send and 16 receive channels. As root it runs in a network of its own, which also has IPv6
# multicast; else on the machine's loopback interface.
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build g++ iproute2 libcli11-dev libfmt-dev libbitstream-dev \
    nlohmann-json3-dev libtomlplusplus-dev libcpp-httplib-dev
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build --target qxvrtp -- --quiet

isolate=
# A container may not allow it, even to root.
if [ "$(id -u)" = 0 ] && scripts/isolate.sh true 2>/dev/null; then
    isolate=scripts/isolate.sh
fi
if [ $# -gt 0 ]; then
    # Opened here, since the isolated process has another /tmp.
    exec 3<"$1"
    shift
    exec $isolate build/bin/qxvrtp demo /proc/self/fd/3 "$@"
fi
exec $isolate build/bin/qxvrtp demo
