#!/bin/sh
# bench.sh [ARGUMENT...]: installs what is missing, builds, and measures the module beside bare
# loops and other programs, in a network of its own; about 35 minutes, with --quick about five.
# Numbers and plots go to out/bench/. Needs root.
#
#   bench.sh [--quick] [--rounds N] [--seconds S]   everything
#   bench.sh deployed [ARGUMENT...]                 only bench/deployed.py, with its arguments
#   bench.sh SECTION... [ARGUMENT...]               only qxvrtp-bench, with its arguments
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build g++ iproute2 python3 libcli11-dev libfmt-dev \
    libbenchmark-dev libboost-dev nlohmann-json3-dev
# The other programs, and what draws: the bench names those that it does not find.
scripts/install.sh gnuplot-nox ffmpeg multicat gstreamer1.0-tools gstreamer1.0-plugins-base \
    gstreamer1.0-plugins-good || echo "not all of them can be installed"
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DQXV_BUILD_BENCH=ON -DQXV_BUILD_TOOLS=OFF >/dev/null
cmake --build build-bench -- --quiet

deployed() {
    bench/deployed.py --json out/bench/deployed.json "$@"
}
pinned() {
    scripts/isolate.sh build-bench/bin/qxvrtp-bench --peers \
        --json out/bench/bench.json --plot out/bench "$@"
}
case ${1:-} in
deployed)
    shift
    deployed "$@"
    ;;
[a-z]*)
    pinned "$@"
    ;;
*)
    deployed "$@"
    pinned "$@"
    ;;
esac
