#!/bin/sh
# lint.sh [--install]: installs what is missing, checks the format of all code and the layers of its
# folders, and looks for faults in all but the tests with clang-tidy (.clang-tidy) and cppcheck; any
# finding is an error. About a quarter of an hour on two processors. With --install it only installs.
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build clang clang-format clang-tidy cppcheck libcli11-dev libfmt-dev \
    libbitstream-dev libtomlplusplus-dev libbenchmark-dev libboost-dev nlohmann-json3-dev \
    libcpp-httplib-dev libcurl4-openssl-dev
[ "${1:-}" != --install ] || exit 0

failed=0
find module common sockets streams tools bench tests fuzz examples -name '*.[ch]' -o -name '*.cpp' |
    xargs clang-format --dry-run --Werror || failed=1
tests/layers.sh || failed=1

# Nothing is built: the tools only need to know how each file would be compiled, by clang, since
# clang-tidy does not know g++'s warnings.
build=build-lint
cmake --preset dev -B "$build" -DQXV_BUILD_TESTS=OFF -DQXV_BUILD_BENCH=ON -DQXV_UNITY=OFF \
    -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null

# What a file has not passed is printed whole, and at once, so that two files' findings do not mix.
# xargs fails when one of them does.
find module common sockets streams tools bench examples -name '*.c' -o -name '*.cpp' | sort |
    xargs -P "$(nproc)" -n 1 sh -c 'found=$(clang-tidy -p "$0" --quiet "$1" 2>&1) ||
        { printf "%s\n" "$found"; exit 1; }' "$build" || failed=1

# inline-suppr: a finding that is settled in the code has its reason beside it there.
cppcheck --project="$build/compile_commands.json" -j "$(nproc)" --quiet --error-exitcode=1 \
    --enable=warning,performance,portability --inline-suppr || failed=1

[ "$failed" = 0 ] && echo "no findings"
exit "$failed"
