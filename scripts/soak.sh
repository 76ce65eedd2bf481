#!/bin/sh
# soak.sh [SECONDS]: installs what is missing, builds, and runs all 32 channels at 8 Mbit/s for so long,
# half an hour by default, in a network of its own. Fails when anything is lost, drifts or grows.
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build g++ iproute2
cmake -S . -B build-soak -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXV_BUILD_TOOLS=OFF >/dev/null
cmake --build build-soak --target qxvrtp-soak -- --quiet
exec scripts/isolate.sh build-soak/bin/qxvrtp-soak "${1:-1800}"
