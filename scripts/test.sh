#!/bin/sh
# test.sh [CONFIGURATION...]: installs what is missing, builds, and runs the tests. Without arguments it
# builds the release with g++ and tests the system itself, which takes a few minutes. Configurations:
#   release  g++; also tests packages, services, documents, types and other programs as peers
#   dev      clang++, which only has to build without a warning; the build of tsan shows the same
#   lint     format, layers, clang-tidy and cppcheck (lint.sh)
#   asan     g++, with a check of addresses and undefined behaviour
#   tsan     clang++, with a check of threads
#   all      all of these but dev, which is what CI runs
# Needs root, and the right to make namespaces: every test has a network and a /tmp of its own.
set -eu
cd "$(dirname "$0")/.."
[ "$*" != all ] || set -- release lint asan tsan
[ $# -gt 0 ] || set -- system

build_needs="cmake ninja-build g++ iproute2 libcli11-dev libfmt-dev libbitstream-dev
    nlohmann-json3-dev libtomlplusplus-dev libcpp-httplib-dev libcurl4-openssl-dev libgtest-dev"

may_isolate() {
    scripts/install.sh iproute2
    scripts/isolate.sh true || {
        echo "test.sh: each test gets a network and a /tmp of its own, for which it must be root and" \
            "may make namespaces (unshare --net --mount). In a container that needs its privileged" \
            "mode. Without it, scripts/demo.sh still works." >&2
        exit 1
    }
}

test_in() { # BUILD [CTEST ARGUMENT...]
    # The sanitizers' shadow memory does not get on with much address-space randomisation. Most tests wait
    # nearly all of their time.
    setarch "$(uname -m)" -R ctest --output-on-failure -j $(($(nproc) * 3)) --no-tests=error \
        --test-dir "$@"
}

# Among others, lint.sh takes the time that their tests leave; what it says comes at the end.
lint=
case " $* " in
    *" lint "*)
        scripts/lint.sh --install
        if [ $# -gt 1 ]; then
            said=$(mktemp)
            # It gets a tenth of what both want. nice alone would not do: where the kernel shares out
            # by session first (sched(7), autogroup), a session of its own gets half. Idle priority
            # would hold up the kernel's own work (RCU), for which all wait.
            setsid nice -n 10 sh -c '{ echo 10 >/proc/self/autogroup; } 2>/dev/null
                exec scripts/lint.sh' >"$said" 2>&1 &
            lint=$!
            trap 'kill -- "-$lint" 2>/dev/null || true; rm -f "$said"' EXIT
            trap 'exit 130' INT  # or the trap above would not run
            trap 'exit 143' TERM HUP
        fi
        ;;
esac

for configuration in "$@"; do
    [ "$configuration" != lint ] || [ -z "$lint" ] || continue
    echo "== $configuration"
    build=build-$configuration
    case $configuration in
        system | release) build=build ;;
        dev | asan | tsan) ;;
        lint) scripts/lint.sh && continue || exit 1 ;;
        *) echo "test.sh: unknown configuration '$configuration'" >&2 && exit 2 ;;
    esac
    [ "$configuration" = dev ] || may_isolate
    # shellcheck disable=SC2086 # lists of words
    case $configuration in
        system) scripts/install.sh $build_needs python3 ;;
        release)
            scripts/install.sh $build_needs python3 mypy dpkg-dev file pkgconf lintian doxygen systemd \
                mandoc zsh fish
            # For the page in a real browser.
            scripts/install.sh chromium chromium-driver python3-selenium libjs-dygraphs fonts-dejavu-core ||
                echo "cannot be installed: chromium"
            # The other programs: those that cannot be installed are skipped, by name.
            for packages in ffmpeg multicat "gstreamer1.0-tools gstreamer1.0-plugins-base \
                gstreamer1.0-plugins-good gstreamer1.0-plugins-bad" tshark "vlc-bin vlc-plugin-base" prometheus \
                srt-tools rist-tools; do
                scripts/install.sh $packages || echo "cannot be installed: $packages"
            done
            ;;
        dev | tsan) scripts/install.sh $build_needs clang libclang-rt-dev ;;
        asan) scripts/install.sh $build_needs ;;
    esac
    case $configuration in
        # As demo.sh builds: another compiler's warning is no failed test, and nothing is compiled twice.
        system) cmake --preset release -DQXV_WERROR=OFF >/dev/null ;;
        *) cmake --preset "$configuration" >/dev/null ;;
    esac
    cmake --build "$build" -- --quiet
    case $configuration in
        system) test_in "$build" --label-exclude extra ;;
        release | asan | tsan) test_in "$build" ;;
    esac
done

if [ -n "$lint" ]; then
    echo "== lint"
    failed=0
    wait "$lint" || failed=1
    cat "$said"
    exit "$failed"
fi
