#!/bin/sh
# fuzz.sh [SECONDS] [TARGET...]: installs what is missing, builds the fuzz targets of fuzz/ with clang,
# and runs each for so long, a minute by default, beginning with its corpus. New inputs go to
# build-fuzz/corpus/TARGET, one that fails to build-fuzz/. Needs root: each target has a network and a
# /tmp of its own.
set -eu
cd "$(dirname "$0")/.."
seconds=60
case ${1:-} in [0-9]*) seconds=$1 && shift ;; esac
[ $# -gt 0 ] || set -- $(sed -n 's/^ *qxv_fuzz(\([a-z]*\) .*/\1/p; s/^foreach(name \(.*\))/\1/p' fuzz/CMakeLists.txt)

scripts/install.sh cmake ninja-build clang libclang-rt-dev iproute2 libcli11-dev libfmt-dev \
    libbitstream-dev libtomlplusplus-dev libcpp-httplib-dev nlohmann-json3-dev libgtest-dev
cmake --preset fuzz >/dev/null
for target in "$@"; do
    cmake --build build-fuzz --target "${target}_fuzz" -- --quiet
done
# Freed memory is soon used again, so that a growth of the process would be one of ours.
export ASAN_OPTIONS=quarantine_size_mb=16
for target in "$@"; do
    mkdir -p "build-fuzz/corpus/$target"
    status=0
    # The sanitizers' shadow memory does not get on with much address-space randomisation.
    setarch "$(uname -m)" -R nice -n 15 scripts/isolate.sh "build-fuzz/bin/${target}_fuzz" \
        -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 -print_final_stats=1 \
        -artifact_prefix="build-fuzz/$target-" "build-fuzz/corpus/$target" "fuzz/corpus/$target" \
        2>"build-fuzz/$target.log" || status=$?
    echo "== $target"
    if [ "$status" != 0 ]; then
        tail -n 60 "build-fuzz/$target.log"
        exit "$status"
    fi
    grep -a 'DONE  \|^stat::' "build-fuzz/$target.log"
done
