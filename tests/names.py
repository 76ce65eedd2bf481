#!/usr/bin/env python3
"""names.py QXVRTP: host names, sources, interfaces and marks of URLs, with a hosts file of the test's own."""
import socket, subprocess, sys, time

TOOL, PORT, GROUP = sys.argv[1], 5000, "232.1.1.1"
PACKETS = b"".join(b"G\x01\x00" + bytes([0x10 | n & 15]) + bytes(184) for n in range(1600))
INTERFACE = socket.inet_aton("10.9.0.1")

def tool(*arguments, **more):
    return subprocess.Popen([TOOL, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)

# A datagram's first packet and its mark come to the place that the name stands for.
def check_sending():
    for url, address, mark in ((f"udp://encoder:{PORT}?dscp=34", "10.9.0.2", 34 << 2), (f"udp://encoder:{PORT}", "10.9.0.2", 0),
                               (f"udp://encoder6.test:{PORT}?dscp=46", "fd09::2", 46 << 2),
                               (f"udp://@group.test:{PORT}?iface=v0&dscp=10", GROUP, 10 << 2)):
        with socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM) as at:
            at.bind((address, PORT))
            at.settimeout(8)
            if at.family == socket.AF_INET6:
                at.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVTCLASS, 1)
            else:
                at.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
            if address == GROUP:
                at.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"v0")
                at.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(GROUP) + INTERFACE)
            with tool("send", "-", url, "--bitrate", "1M", stdin=subprocess.PIPE) as sender:
                sender.stdin.write(PACKETS)
                sender.stdin.flush()
                data, ancillary, _, _ = at.recvmsg(2000, 200)
                sender.kill()
            assert data[:188] == PACKETS[:188] and [value[0] for *_, value in ancillary] == [mark], (url, len(data), ancillary)

# Of two senders of a group, the one that is named is received, and the other is not.
def check_source():
    senders = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
    for number, sender in enumerate(senders):
        sender.bind((f"10.9.0.{2 + number}", 0))
        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, INTERFACE)
    for url in (f"udp://{GROUP}:{PORT}?source=encoder&iface=v0", f"udp://encoder@group.test:{PORT}?iface=v0"):
        receiver = tool("receive", url, "-", "--bytes", str(1316 * 20))
        deadline = time.monotonic() + 15
        while receiver.poll() is None and time.monotonic() < deadline:
            for number, sender in enumerate(senders):
                sender.sendto((b"G\x01" + bytes([number]) + b"\x10" + bytes(184)) * 7, (GROUP, PORT))
            time.sleep(0.02)
        receiver.kill()
        data, complaint = receiver.communicate()
        assert receiver.returncode == 0 and {data[at + 2] for at in range(0, len(data), 188)} == {0}, (url, len(data), complaint)

# Multicast leaves by the loopback interface, unless a URL names the other one.
subprocess.run("""ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up &&
    for n in 1 2 3; do ip addr add 10.9.0.$n/24 dev v0; done && ip -6 addr add fd09::2/64 dev v0 nodad &&
    printf '127.0.0.1 localhost\n10.9.0.2 encoder\nfd09::2 encoder6.test\n232.1.1.1 group.test\n' > /tmp/hosts &&
    ip route change 224.0.0.0/4 dev lo src 127.0.0.1 && mount --bind /tmp/hosts /etc/hosts""", shell=True, check=True)
check_sending()
check_source()
failed = tool("receive", "udp://nobody.invalid:5000", "-")
reason = failed.communicate(timeout=60)[1].decode()
assert failed.returncode == 1 and "nobody.invalid" in reason, reason
