#!/usr/bin/env python3
"""names.py QXVRTP: host names, sources, interfaces and marks of URLs, between two networks, with a hosts
file of the test's own. "encoder" is the other end; 10.9.0.2 and 10.9.0.3 both send there."""
import ctypes, os, socket, subprocess, sys, time

TOOL, PORT, GROUP = sys.argv[1], 5000, "232.1.1.1"
PACKETS = b"".join(b"G\x01\x00" + bytes([0x10 | n & 15]) + bytes(184) for n in range(1600))
NEW_NETWORK = 0x40000000  # CLONE_NEWNET

def run(commands, peer):
    for command in commands.split(";"):
        enter = ["nsenter", "-t", str(peer.pid), "-n"] if command[0] == "@" else []
        subprocess.run(enter + command.lstrip("@").split(), check=True)

def tool(*arguments, **more):
    return subprocess.Popen([TOOL, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)

def inside(peer, make):  # what is made belongs to the other network
    own = os.open("/proc/self/ns/net", os.O_RDONLY)
    other = os.open(f"/proc/{peer.pid}/ns/net", os.O_RDONLY)
    try:
        assert ctypes.CDLL(None).setns(other, NEW_NETWORK) == 0
        return make()
    finally:
        assert ctypes.CDLL(None).setns(own, NEW_NETWORK) == 0

def listener(family, group=None):  # on the other end
    made = socket.socket(family, socket.SOCK_DGRAM)
    made.bind(("", PORT))
    if family == socket.AF_INET:
        made.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
    else:
        made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVTCLASS, 1)
    if group:
        made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton(group) + socket.inet_aton("10.9.0.2"))
    made.settimeout(8)
    return made

def check_sending(peer):
    """A datagram's first address, payload and mark, at the place that the name stands for."""
    four, six = (int(socket.IP_TOS), socket.IPV6_TCLASS)
    for url, family, group, sender, mark in (
            (f"udp://encoder:{PORT}?dscp=34", socket.AF_INET, None, "10.9.0.1", 34 << 2),
            (f"udp://encoder6.test:{PORT}?dscp=46", socket.AF_INET6, None, "fd09::1", 46 << 2),
            (f"udp://@group.test:{PORT}?iface=v0&dscp=10", socket.AF_INET, GROUP, "10.9.0.1", 10 << 2),
            (f"udp://encoder:{PORT}", socket.AF_INET, None, "10.9.0.1", 0)):
        at = inside(peer, lambda: listener(family, group))
        sender_process = tool("send", "-", url, "--bitrate", "1M", stdin=subprocess.PIPE)
        sender_process.stdin.write(PACKETS)
        sender_process.stdin.flush()
        data, ancillary, _, source = at.recvmsg(2000, 200)
        marks = [value[0] for _, kind, value in ancillary if kind in (four, six)]
        sender_process.kill()
        sender_process.communicate()
        at.close()
        assert data[:188] == PACKETS[:188] and source[0] == sender and marks == [mark], (
            url, len(data), source, marks)

def check_source(peer):
    """Of two senders of a group, the one that is named is received, and the other alone is not."""
    def sender(address):
        made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.bind((address, 0))
        made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
        return made
    wanted, other = (inside(peer, lambda a=a: sender(a)) for a in ("10.9.0.2", "10.9.0.3"))
    def packet(pid):
        return (b"G" + pid.to_bytes(2, "big") + b"\x10" + bytes(184)) * 7
    for url in (f"udp://{GROUP}:{PORT}?source=encoder&iface=v0", f"udp://encoder@group.test:{PORT}?iface=v0"):
        receiver = tool("receive", url, "-", "--bytes", str(1316 * 20))
        deadline = time.monotonic() + 15
        while receiver.poll() is None and time.monotonic() < deadline:
            other.sendto(packet(0x101), (GROUP, PORT))
            wanted.sendto(packet(0x100), (GROUP, PORT))
            time.sleep(0.02)
        receiver.kill()
        data, complaint = receiver.communicate()
        pids = {data[at + 1:at + 3] for at in range(0, len(data), 188)}
        assert receiver.returncode == 0 and pids == {b"\x01\x00"}, (url, len(data), pids, complaint)

def check_failure():
    failed = tool("receive", "udp://nobody.invalid:5000", "-")
    complaint = failed.communicate(timeout=60)[1].decode()
    assert failed.returncode == 1 and "nobody.invalid" in complaint, complaint

def main(peer):
    run("ip link add v0 type veth peer name v1;ip link set v1 netns %d;ip link set v0 up;"
        "@ip link set lo up;@ip link set v1 up;ip addr add 10.9.0.1/24 dev v0;"
        "@ip addr add 10.9.0.2/24 dev v1;@ip addr add 10.9.0.3/24 dev v1;"
        "ip -6 addr add fd09::1/64 dev v0 nodad;@ip -6 addr add fd09::2/64 dev v1 nodad" % peer.pid, peer)
    with open("/tmp/hosts", "w", encoding="ascii") as hosts:
        hosts.write("127.0.0.1 localhost\n10.9.0.2 encoder\nfd09::2 encoder6.test\n"
                    f"{GROUP} group.test\n")
    run("mount --bind /tmp/hosts /etc/hosts", peer)
    check_sending(peer)
    check_source(peer)
    check_failure()

if __name__ == "__main__":
    with subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep 120"],
                          stdout=subprocess.PIPE) as network:
        network.stdout.readline()  # it is there
        try:
            main(network)
        finally:
            network.kill()
