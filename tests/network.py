#!/usr/bin/env python3
"""network.py MODULE: streams from one network to another, while links, addresses, routes, interfaces
and receivers go and come back, and other traffic meets them. Prints how soon all flow again."""
import ctypes, os, re, socket, struct, subprocess, sys, threading, time

MODULE = ctypes.CDLL(sys.argv[1])
MODULE.QXV_RTP_Create.restype = ctypes.c_void_p
HANDLE = ctypes.c_void_p(MODULE.QXV_RTP_Create(0))
PORT, BYTES, MARK = 5000, 7 * 188, b"G\x1f\xff\x10QXV_"
# Destination, and the receiver's local address and MulticastOption; the last receives the second again.
STREAMS = [("10.9.0.1", "0.0.0.0", 0), ("239.1.1.1", "10.9.0.1", 0), ("239.1.1.2", "0.0.0.0", 1),
           ("239.1.1.3", "0.0.0.0", 0), ("fd09::1", "::", 0), ("ff15::1", "fd09::1", 0),
           ("ff15::2", "::", 1), ("10.9.0.2@239.1.1.4", "10.9.0.1", 0), ("fd09::2@ff15::3", "::", 1),
           ("239.1.1.1", "0.0.0.0", 1)]
# Commands; those with "@" in the senders' network.
UP = """ip link set v0 up; @ip link set v1 up; ip addr replace 10.9.0.1/24 dev v0;
    @ip addr replace 10.9.0.2/24 dev v1; ip -6 addr replace fd09::1/64 dev v0 nodad;
    @ip -6 addr replace fd09::2/64 dev v1 nodad; ip route replace 239.1.1.3 dev v0;
    @ip route replace 239.0.0.0/8 dev v1"""
MAKE = "ip link add v0 type veth peer name v1; ip link set v1 netns PEER;" + UP
NO_ROUTE = ";".join("@ip route add unreachable " + to for to in
                    ("10.9.0.1", "239.0.0.0/9", "fd09::1", "ff15::/16 table local metric 1"))

def configure(direction, channel, remote, local, option, port=PORT):
    config = struct.pack("256s256s4B2H", local.encode(), remote.encode(),
                         remote.split("@")[-1].startswith(("239.", "ff")), channel % 2, 1, option, port, 0)
    config = ctypes.create_string_buffer(config)
    assert MODULE.QXV_RTP_SetConfig(HANDLE, direction, channel, config)

def send(channel):  # every packet has its stream's and its own number
    configure(0, channel, STREAMS[channel][0], "::" if ":" in STREAMS[channel][0] else "0.0.0.0", 0)
    MODULE.QXV_RTP_SendStart(HANDLE, channel, 1000000, 64)
    for n in range(1, 1 << 40, 7):
        packets = (MARK + bytes([channel]) + i.to_bytes(8, "big") for i in range(n, n + 7))
        data = b"".join(packet.ljust(188, b"\xff") for packet in packets)
        MODULE.QXV_RTP_Send(HANDLE, channel, data, BYTES)

class Receiver(threading.Thread):
    def __init__(self, channel):
        super().__init__(daemon=True)
        self.channel, self.last, self.number = channel, 0.0, 0
        self.missing, self.late, self.strange = set(), 0, 0

    def run(self):
        configure(1, self.channel, *STREAMS[self.channel])
        data, space = b"", ctypes.create_string_buffer(BYTES)
        while MODULE.QXV_RTP_ReceiveStart(HANDLE, self.channel):
            while MODULE.QXV_RTP_Receive(HANDLE, self.channel, space, BYTES):
                data, end = data + space.raw, 0
                for found in re.finditer(MARK + b"(.)(.{8})", data, re.S):
                    number, end = int.from_bytes(found[2], "big"), found.end()
                    own = self.channel if self.channel < len(STREAMS) - 1 else 1
                    if found[1][0] == own and number in self.missing:
                        self.missing.remove(number)
                        self.late += 1
                        continue
                    self.strange += found[1][0] != own or number <= self.number
                    self.missing.update(range(self.number + 1, number))
                    self.number, self.last = number, time.monotonic()
                data = data[max(end, len(data) - 16):]
            time.sleep(1)

def end_receivers():
    for receiver in receivers:
        MODULE.QXV_RTP_ReceiveEnd(HANDLE, receiver.channel)

def other_traffic():  # of all sizes to all streams, to other groups, and more than a channel can hold
    four, six = (socket.socket(f, socket.SOCK_DGRAM) for f in (socket.AF_INET, socket.AF_INET6))
    four.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("10.9.0.1"))
    six.setsockopt(41, socket.IPV6_MULTICAST_IF, socket.if_nametoindex("v0"))
    for size in (0, 1, 12, 13, 71, 188, 1316, 1328, 1472, 2048, 9000, 65507) * 5:
        own = [(stream[0].split("@")[-1], (b"\x8f\x21" + bytes(size))[:size], PORT) for stream in STREAMS]
        other = [(group, MARK + b"\xee" * 180, PORT) for group in ("239.7.7.7", "ff15::7")]
        for to, data, port in own + other + [("127.0.0.1", bytes(1316), PORT + 1)] * 200:
            (six if ":" in to else four).sendto(data, (to, port))
        time.sleep(0.01)

def run(commands):
    for command in re.findall(r"[^;\s][^;]*", commands.replace("PEER", str(network.pid))):
        enter = ["nsenter", "-t", str(network.pid), "-n"] if command[0] == "@" else []
        subprocess.run(enter + command.lstrip("@").split(), check=True)

def recovery(since):  # seconds until all flow again
    times = {}
    while len(times) < len(receivers) and time.monotonic() < since + 8:
        times |= {r: r.last - since for r in receivers if r.last > since and r not in times}
        time.sleep(0.002)
    return max(times.values()) if len(times) == len(receivers) else float("inf")

FAULTS = [  # name, what happens, and what mends it; where nothing does, nothing may be lost
    ("link down at the receiver", "ip link set v0 down", UP),
    ("link down at the sender", "@ip link set v1 down", UP),
    ("addresses gone at the receiver", "ip addr flush dev v0", UP),
    ("addresses gone at the sender", "@ip addr flush dev v1", UP),
    ("no route", NO_ROUTE, NO_ROUTE.replace("add", "del")),
    ("interfaces made anew", "ip link del v0", MAKE),
    ("interfaces made anew, at the limit of memberships", "ip link del v0", MAKE),
    ("receivers ended and started", end_receivers, ""),
    ("other traffic, and a flood", other_traffic, None),
    ("MTU of 1280", "@ip link set v1 mtu 1280; ip link set v0 mtu 1280", None),
    ("MTU of 600 on the path", "@ip route replace 10.9.0.1 dev v1 mtu 600", None)]

def counts():  # lost, late, late where that may be, and strange
    # While the kernel looks for a receiver's hardware address it holds datagrams, and may send newer
    # ones first.
    held = [r for r in receivers if STREAMS[r.channel][0] in ("10.9.0.1", "fd09::1")]
    return (sum(len(r.missing) for r in receivers), sum(r.late for r in receivers if r not in held),
            sum(r.late for r in held), sum(r.strange for r in receivers))

def judge(fault, mend):  # what is seen, and what is wrong with it
    time.sleep(0.5)
    if recovery(time.monotonic()) > 8:
        return "not tried", ["no flow before it"]
    before = counts()
    fault() if callable(fault) else run(fault)
    time.sleep(1)
    stopped = [r.channel for r in receivers if r.last < time.monotonic() - 0.5]
    run(mend or "")
    seconds = recovery(time.monotonic())
    lost, late, held, strange = (new - old for new, old in zip(counts(), before))
    wrong = {"strange packets": strange, "packets out of order": late, "flow too late": seconds > 5,
             "something lost, late or stopped": mend is None and (stopped or lost or held),
             "without effect": mend is not None and not (stopped or lost)}
    seen = (f"stopped {stopped}, flow after {seconds:.2f} s, {lost} lost, {late + held} late, "
            f"{strange} strange")
    return seen, [what for what, is_so in wrong.items() if is_so]

class Machine:
    """How it treats a process that seldom asks for a processor: other programs and stalls make it wait."""
    def __init__(self):
        self.waits, write = os.pipe()
        parent = os.getpid()
        if os.fork():
            os.close(write)
            return
        while os.getppid() == parent:
            begin, own = time.monotonic(), time.process_time()
            while time.process_time() < own + 0.001:
                pass
            time.sleep(0.01)
            os.write(write, struct.pack("d", time.monotonic() - begin - 0.011))
        os._exit(0)

    def watch(self):
        self.begin, self.before = time.monotonic(), self.processors()
        os.read(self.waits, 1 << 16)

    def processors(self):  # what a virtual machine's host takes away, and all time
        with open("/proc/stat") as stat:
            times = [int(word) for word in stat.readline().split()[1:9]]
        return times[7], sum(times)

    def is_quiet(self):  # since watch()
        waits = [wait for wait, in struct.iter_unpack("d", os.read(self.waits, 1 << 16))]
        stolen, everything = (new - old for new, old in zip(self.processors(), self.before))
        part, stolen = sum(waits) / (time.monotonic() - self.begin), stolen / max(everything, 1)
        self.told = (f"a process waited {part:.0%} of the time and up to {max(waits):.2f} s, "
                     f"{stolen:.0%} of the processors' time was stolen")
        return max(waits) < 0.1 and part < 0.2 and stolen < 0.1

    def becomes_quiet(self):
        for _ in range(15):
            self.watch()
            time.sleep(1)
            if self.is_quiet():
                return True
        return False

def is_passed(name, fault, mend):  # None: the machine was never quiet when it failed
    for attempt in range(3):
        if attempt > 0 and not machine.becomes_quiet():
            break
        machine.watch()
        seen, wrong = judge(fault, mend)
        quiet = machine.is_quiet()
        print(f"{name:50} {seen}", flush=True)
        if not wrong:
            return True
        print(f"{'FAILED' if quiet else 'does not count'}: {name}: {', '.join(wrong)}; {machine.told}",
              flush=True)
        if quiet:
            return False
    return None

def main():
    run("sysctl -qw net.ipv4.igmp_max_memberships=3;" + MAKE)
    configure(1, 15, "0.0.0.0", "127.0.0.1", 0, PORT + 1)
    MODULE.QXV_RTP_ReceiveStart(HANDLE, 15)  # what comes there is not taken
    for receiver in receivers:
        receiver.start()
    failed, end = False, time.monotonic() + 150
    for fault in FAULTS:
        passed = is_passed(*fault)
        failed |= passed is False
        if passed is None or time.monotonic() > end:
            print(f"skipped from '{fault[0]}' on: the machine is not quiet, and times are measured:",
                  machine.told)
            return failed or 77
    return failed

if sys.argv[-1] == "--senders":
    for number in range(len(STREAMS) - 1):
        threading.Thread(target=send, args=(number,)).start()
    sys.stdin.read()  # until the receivers' process ends
    os._exit(0)
machine = Machine()
network = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec cat"], stdin=subprocess.PIPE,
                           stdout=subprocess.PIPE)
network.stdout.readline()  # it is there
receivers = [Receiver(channel) for channel in range(len(STREAMS))]
senders = subprocess.Popen(["nsenter", "-t", str(network.pid), "-n", __file__, *sys.argv[1:], "--senders"],
                           stdin=subprocess.PIPE)
sys.exit(main())
