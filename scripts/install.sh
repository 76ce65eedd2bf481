#!/bin/sh
# install.sh PACKAGE...: installs what is missing of these Debian packages, as root or with sudo.
set -eu
missing=
for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
        missing="$missing $package"
done
[ -n "$missing" ] || exit 0
as_root=
[ "$(id -u)" = 0 ] || as_root=sudo
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086 # a list of words
install() { $as_root apt-get install -y -qq --no-install-recommends $missing >/dev/null; }
# Where the package lists are missing or old, the first try fails.
install 2>/dev/null || { $as_root apt-get update -qq && install; }
