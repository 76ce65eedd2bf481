#!/bin/sh
# test.sh [CONFIGURATION...]: installs what is missing, builds and runs the tests. Configurations, all
# of them by default: release (g++), asan (g++, address and undefined behaviour), tsan (clang++,
# threads), dev (clang++, which only has to build without a warning), and lint (lint.sh instead of a
# build). Needs root: every test has a network and a /tmp of its own.
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build g++ clang clang-format libclang-rt-dev iproute2 python3 \
    libcli11-dev libfmt-dev libbitstream-dev nlohmann-json3-dev libgtest-dev \
    dpkg-dev file pkgconf lintian doxygen libtomlplusplus-dev \
    systemd mandoc zsh fish
[ $# -gt 0 ] || set -- release dev lint asan tsan

find module common sockets tools bench tests fuzz examples -name '*.[ch]' -o -name '*.cpp' |
    xargs clang-format --dry-run --Werror

for configuration in "$@"; do
    echo "== $configuration"
    if [ "$configuration" = lint ]; then
        scripts/lint.sh
        continue
    fi
    build=build
    [ "$configuration" = release ] || build=build-$configuration
    if [ "$configuration" = release ]; then
        scripts/install.sh python3 mypy
        # The other programs: those that cannot be installed are skipped, by name.
        for packages in ffmpeg multicat "gstreamer1.0-tools gstreamer1.0-plugins-base \
            gstreamer1.0-plugins-good gstreamer1.0-plugins-bad" tshark "vlc-bin vlc-plugin-base"; do
            # shellcheck disable=SC2086 # a list of words
            scripts/install.sh $packages || echo "cannot be installed: $packages"
        done
    fi
    cmake --preset "$configuration" >/dev/null
    cmake --build "$build" -- --quiet
    [ "$configuration" != dev ] || continue
    # The sanitizers' shadow memory does not get on with much address-space randomisation.
    setarch "$(uname -m)" -R ctest --test-dir "$build" --output-on-failure -j 2 --no-tests=error
done
