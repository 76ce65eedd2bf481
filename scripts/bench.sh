#!/bin/sh
# bench.sh [ARGUMENT...]: installs what is missing, builds, and measures the tool and hosts of the module
# beside bare loops and other programs, in a network of its own. About ten minutes, with --quick about one
# and a half. Tables and numbers go to out/bench/. Needs root.
#
#   bench.sh [--quick] [--rounds N] [--seconds S]   everything
#   bench.sh SECTION... [ARGUMENT...]               only sections that begin so, as in: bench.sh send pinned
#   bench.sh --help, bench.sh --list                all arguments; the names of the sections
set -eu
cd "$(dirname "$0")/.."
export PYTHONDONTWRITEBYTECODE=1
for argument in "$@"; do
    case $argument in -h | --help | --list) exec python3 bench/bench.py "$argument" ;; esac
done
scripts/install.sh cmake ninja-build g++ iproute2 python3 libcli11-dev libfmt-dev libbitstream-dev \
    nlohmann-json3-dev libtomlplusplus-dev libcpp-httplib-dev libbenchmark-dev libboost-dev
# The other programs: those that are not there are left out.
scripts/install.sh ffmpeg multicat gstreamer1.0-tools gstreamer1.0-plugins-base \
    gstreamer1.0-plugins-good || echo "not all other programs can be installed"
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DQXV_BUILD_BENCH=ON >/dev/null
cmake --build build-bench -- --quiet
exec python3 bench/bench.py --output out/bench "$@"
