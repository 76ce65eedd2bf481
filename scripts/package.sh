#!/bin/sh
# package.sh: installs what is missing, and builds the Debian packages into out/packages: libqxv-rtp0,
# libqxv-rtp-dev, qxvrtp and python3-qxv-rtp. The same commit in the same directory gives the same bytes.
set -eu
cd "$(dirname "$0")/.."
scripts/install.sh cmake ninja-build g++ dpkg-dev file libcli11-dev libfmt-dev libbitstream-dev \
    libtomlplusplus-dev nlohmann-json3-dev libcpp-httplib-dev libcurl4-openssl-dev
# The time in all packages: that of the last commit, or of the changelog in a tree without a repository.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CHANGELOG.md)}
export SOURCE_DATE_EPOCH
build=build-package
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
    -DCMAKE_INSTALL_SYSCONFDIR=/etc -DCMAKE_INSTALL_DOCDIR=share/doc/libqxv-rtp-dev \
    -DCMAKE_SKIP_INSTALL_RPATH=ON -DCMAKE_CXX_FLAGS="\"-ffile-prefix-map=$PWD=.\"" >/dev/null
cmake --build "$build" -- --quiet >/dev/null
rm -rf "$build/packages"
cpack --config "$build/CPackConfig.cmake" -B "$build/packages" >"$build/cpack.log" ||
    { cat "$build/cpack.log" && exit 1; }

# What cpack cannot do.
rm -rf out/packages
mkdir -p out/packages
for package in "$build"/packages/*.deb; do
    name=$(dpkg-deb -f "$package" Package)
    version=$(dpkg-deb -f "$package" Version)
    root=$build/packages/$name
    dpkg-deb -R "$package" "$root"
    rm -f "$package"
    case $name in
        lib*)
            # The trigger does what these do.
            rm -f "$root/DEBIAN/postinst" "$root/DEBIAN/postrm"
            sed -i "/^Package:/a Multi-Arch: same" "$root/DEBIAN/control"
            ;;
        # Where the units look for their files, which are the administrator's.
        qxvrtp) mkdir -p "$root/etc/qxvrtp" ;;
    esac
    doc=$root/usr/share/doc/$name
    mkdir -p "$doc"
    gzip -9n <CHANGELOG.md >"$doc/changelog.gz"
    gzip -9n >"$doc/changelog.Debian.gz" <<END
libqxv-rtp ($version) unstable; urgency=medium

  * See changelog.gz.

 -- $(sed -n 's/^Maintainer: //p' "$root/DEBIAN/control")  $(date -uRd "@$SOURCE_DATE_EPOCH")
END
    find "$root/usr" -path '*/man/*' -type f -exec gzip -9n {} +
    case $name in *rtp[0-9])
        install -D -m 644 cmake/libqxv-rtp.lintian-overrides "$root/usr/share/lintian/overrides/$name"
        ;;
    esac
    (cd "$root" && find usr -type f | sort | xargs md5sum >DEBIAN/md5sums)
    dpkg-deb --root-owner-group -b "$root" out/packages >/dev/null
    rm -rf "$root"
done
ls out/packages/*.deb
