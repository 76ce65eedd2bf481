#!/bin/sh
# packages.sh BUILD: builds the Debian packages and installs them into a copy-on-write view of this
# machine. There the installed examples are built, by pkg-config and by CMake, and relay a stream; then
# the packages go, and must leave nothing. What BUILD installs must work from any place. Runs isolated.
set -eu
cd "$(dirname "$0")/.."

if [ "$1" = inside ]; then
    cd /tmp/work
    started=
    trap 'kill $started 2>/dev/null || :' EXIT

    # A service manager that notes what it is told to do, and has an instance that runs and one that failed.
    mkdir -p bin /run/systemd/system
    rm -f /usr/sbin/policy-rc.d # by which a container may forbid all of it
    cat >bin/systemctl <<'END'
#!/bin/sh
echo "$*" >>/tmp/work/told
case $* in *list-units*) echo 'qxvrtp-send@news.service loaded active running x' ;; esac
case $* in *list-units*--all*) echo 'qxvrtp-relay@old.service loaded failed failed x' ;; esac
END
    chmod +x bin/systemctl
    export PATH="$PWD/bin:$PATH"
    told() { # EXPECTED: the commands since the last call
        [ "$(grep -v list-units told | tr '\n' ',')" = "$1" ] || { cat told && exit 1; }
        rm told
    }
    dpkg -i ./*.deb >/dev/null
    told '--system daemon-reload,'

    strict="-Wall -Wextra -Wpedantic -Werror"
    for header in QXV_RTP QXV_RTP_table QXV_RTP_version ZAQSockets; do
        # A file must declare something, which the one header does not.
        printf '#include <%s.h>\nextern int something;\n' "$header" | tee alone.c >alone.cpp
        cc -std=c99 $strict -fsyntax-only alone.c
        c++ -std=c++17 $strict -fsyntax-only alone.cpp
    done

    cp -r /usr/share/doc/libqxv-rtp-dev/examples pkgconfig
    { cmake -S pkgconfig -B cmake && cmake --build cmake; } >/dev/null
    for source in host.c receive.c collect.c relay.c relay.cpp plugin.c monitor.c; do
        # The command that the example's own comment gives.
        command=$(sed -n 's,^ *[/*]* \(c[c+]* .* -o [a-z]*\)$,\1,p' "pkgconfig/$source")
        (cd pkgconfig && eval "$command $strict" && mv "${source%.*}" "example_$(echo "$source" | tr . _)")
    done

    # The receive channel of that number and group has its socket.
    await() {
        timeout 30 sh -c "until pkgconfig/example_monitor_c 1 2>&1 | grep -q '^receive $1: $2 .*socket open'
            do :; done"
    }
    for relay in pkgconfig/example_relay_c cmake/example_relay_cpp; do
        build=${relay%/*}
        stdbuf -o0 "$build/example_receive_c" 239.9.9.2 5000 >received &
        started=$!
        await 0 239.9.9.2
        mkdir -p collected
        "$build/example_collect_c" collected 5000 239.9.9.3 239.9.9.1 239.9.9.2 2>collected/log &
        started="$started $!"
        await 2 239.9.9.2
        "$relay" 239.9.9.1 5000 239.9.9.2 5000 20000000 &
        started="$started $!"
        await 0 239.9.9.1
        "$build/example_host_c" 239.9.9.1 5000 20000000 <sample.ts
        timeout 30 sh -c 'until cmp received sample.ts 2>&1; do sleep 0.1; done' >differences ||
            { tail -1 differences && exit 1; }
        # RTP after raw traffic brings headers, which are no packets.
        qxvrtp send sample.ts udp://239.9.9.3:5000 --bitrate 20M
        "$build/example_host_c" 239.9.9.3 5000 20000000 <sample.ts
        kill $started
        wait
        cat sample.ts sample.ts | cmp - collected/0.ts
        cmp sample.ts collected/1.ts
        cmp sample.ts collected/2.ts
        grep -q '239.9.9.3: RTP arrives now' collected/log
    done
    qxvrtp demo --duration 1 >demo.log || { cat demo.log && exit 1; }

    # The links in documents lead to what came with them.
    (
        cd /usr/share/doc/libqxv-rtp-dev
        for text in *.md docs/*.md; do
            grep -oE '\]\([^)#:]+\)' "$text" | sed 's/^..//; s/.$//' | while read -r link; do
                [ -e "$(dirname "$text")/$link" ] || { echo "$text: $link leads nowhere" && exit 1; }
            done
        done
    )

    dpkg -P libqxv-rtp-dev >/dev/null
    for plugin in pkgconfig cmake; do # which loads the module by its plain name
        [ "$("$plugin/example_plugin_c" | grep -c '^send .* 224\.1\.0\.')" = 16 ]
    done
    /usr/bin/python3 -Bc 'import qxv_rtp; qxv_rtp.Module().close()'

    enabled=/etc/systemd/system/multi-user.target.wants/qxvrtp-send@news.service
    mkdir -p "${enabled%/*}"
    ln -s /lib/systemd/system/qxvrtp-send@.service "$enabled"
    touch /etc/qxvrtp/news.toml
    dpkg -i qxvrtp_*.deb >/dev/null
    told '--system daemon-reload,try-restart qxvrtp-send@news.service,'
    [ -L "$enabled" ]
    dpkg -r qxvrtp 2>&1 >/dev/null | grep -v 'news.toml\|qxvrtp. not empty' || :
    told 'stop qxvrtp-send@news.service qxvrtp-relay@old.service,--system daemon-reload,'
    [ ! -L "$enabled" ]
    rm /etc/qxvrtp/news.toml # which must still be there
    dpkg -i qxvrtp_*.deb >/dev/null
    dpkg -P qxvrtp python3-qxv-rtp libqxv-rtp0 >/dev/null
    rmdir /run/systemd/system /run/systemd 2>/dev/null || :
    [ -z "$(ldconfig -p | grep -E 'QXV|ZAQ')" ]
    exit
fi

for program in dpkg-deb lintian pkg-config; do
    command -v "$program" >/dev/null || { echo "$program is not installed" && exit 77; }
done
sed -n '/^```c$/,/^```$/p' README.md | sed '1d;$d' | diff - examples/host.c
scripts/package.sh >/dev/null
lintian --fail-on error --suppress-tags no-copyright-file out/packages/*.deb

cmake --install "$1" --prefix /tmp/before >/dev/null
mv /tmp/before /tmp/after
pc=$(find /tmp/after -name qxv_rtp.pc)
cc examples/host.c $(pkg-config --cflags --libs "$pc") -o /tmp/host \
    -Wl,-rpath,"$(pkg-config --variable=libdir "$pc")"
/tmp/host 2>&1 | grep -q usage

mkdir /tmp/upper /tmp/overlay /tmp/root
mount -t overlay -o lowerdir=/,upperdir=/tmp/upper,workdir=/tmp/overlay overlay /tmp/root ||
    { echo "cannot be tested where / cannot be overlaid" >&2 && exit 77; }
mount --rbind /proc /tmp/root/proc
mount --rbind /dev /tmp/root/dev
mount -t tmpfs tmpfs /tmp/root/tmp
mkdir /tmp/root/tmp/work
cp out/packages/*.deb examples/sample.ts tests/packages.sh /tmp/root/tmp/work
chroot /tmp/root /tmp/work/packages.sh inside

# dpkg keeps a log.
left=$(cd /tmp/upper && find . -path ./var -prune -o -print |
    while read -r path; do [ -e "/$path" ] || [ -L "/$path" ] || echo "left behind: $path"; done)
[ -z "$left" ] || { echo "$left" >&2 && exit 1; }
