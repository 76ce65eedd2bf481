#!/usr/bin/env python3
"""Damages one RTP stream in many ways, and compares what comes out of the tool and of other programs.

The stream goes out once, damaged by a seeded script, in copies to all receivers at once, which pass on what
they make of it. A second path has damage of its own; parity (SMPTE ST 2022-1, matrices of 10 by 10) is
damaged as its path is. The first two seconds and the last one and a half are not damaged, and count as little
as packets that are the same as others. All that is repeated with several seeds, whose sums stand in the tables
at the end; wherever the tool is worse than a program beside it, with any seed, a line tells. Needs a network of
its own:
    scripts/isolate.sh bench/redundancy.py --tool build/bin/qxvrtp
"""

import argparse
import random
import re
import select
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median
from typing import IO

PACKET, PAYLOAD = 188, 7 * 188
RATE_BPS = 4_000_000
INTERVAL = PAYLOAD * 8 / RATE_BPS
CALM_START, CALM_END = 2.0, 1.5
SIDE = 10  # rows and columns of the matrix
NULL_PID = 0x1FFF
WINDOW_MS, FEC_WINDOW_MS = 100, 700
COLUMNS = ("out", "missing", "CC errors", "order", "p50 ms", "max ms")


@dataclass(frozen=True)
class Damage:
    loss: float = 0.0
    burst: int = 1
    reordered: float = 0.0  # held up by one to five places
    doubled: float = 0.0
    jitter: float = 0.0  # seconds; the order is kept
    down: tuple[float, float] = (0.0, 0.0)
    delay: float = 0.0


SKEW = 0.02
SCENARIOS: dict[str, tuple[Damage, Damage]] = {
    "nothing": (Damage(), Damage(delay=SKEW)),
    "loss 0.1 %": (Damage(0.001), Damage(0.001, delay=SKEW)),
    "loss 1 %": (Damage(0.01), Damage(0.01, delay=SKEW)),
    "loss 5 %": (Damage(0.05), Damage(0.05, delay=SKEW)),
    "bursts of 10, 1 %": (Damage(0.01, 10), Damage(0.01, 10, delay=SKEW)),
    "reordering 1 %": (Damage(reordered=0.01), Damage(reordered=0.01, delay=SKEW)),
    "reordering 20 %": (Damage(reordered=0.2), Damage(reordered=0.2, delay=SKEW)),
    "duplicates 5 %": (Damage(doubled=0.05), Damage(doubled=0.05, delay=SKEW)),
    "jitter 50 ms": (Damage(jitter=0.05), Damage(jitter=0.05, delay=SKEW)),
    "down for 1 s": (Damage(down=(3, 4)), Damage(down=(5, 6), delay=SKEW)),
    "paths differ": (Damage(0.01, jitter=0.02), Damage(0.02, 10, 0.05, 0.05, delay=SKEW)),
}


def make_stream(folder: Path, seconds: float) -> list[bytes]:
    """Datagrams of a real programme. Null packets are numbered, so that hardly any are alike."""
    file = folder / "stream.ts"
    subprocess.run(
        ["ffmpeg", "-v", "fatal", "-y", "-f", "lavfi", "-i",
         "testsrc2=size=640x360:rate=25,noise=alls=40:allf=t", "-f", "lavfi", "-i", "sine=1000",
         "-t", str(seconds), "-c:v", "mpeg2video", "-b:v", "3M", "-maxrate", "3M", "-bufsize", "1M",
         "-c:a", "mp2", "-f", "mpegts", "-muxrate", str(RATE_BPS), file], check=True)
    data = bytearray(file.read_bytes())
    for at in range(0, len(data), PACKET):
        if pid_of(data, at) == NULL_PID:
            struct.pack_into(">I", data, at + 4, at // PACKET)
    return [bytes(data[at:at + PAYLOAD]) for at in range(0, len(data) - PAYLOAD, PAYLOAD)]


def pid_of(data: bytes, at: int) -> int:
    return (data[at + 1] & 0x1F) << 8 | data[at + 2]


def parity(members: list[bytes], row: bool) -> bytes:
    """Of datagrams of the same length that have nothing between header and payload."""
    combined = 0
    for each in members:
        combined ^= int.from_bytes(each[:2] + each[4:8] + each[12:], "big")
    head = combined.to_bytes(6 + PAYLOAD, "big")
    length = PAYLOAD if len(members) % 2 else 0
    return (b"\x80\x60" + bytes(10) + members[0][2:4] + struct.pack(">HB3x", length, 0x80 | head[1]) + head[2:6] +
            bytes([0x40 if row else 0, 1 if row else SIDE, SIDE, 0]) + head[6:])


def make_datagrams(payloads: list[bytes]) -> list[tuple[float, int, bytes]]:
    """When each leaves and to which port: 0, or 2 and 4 for parity."""
    media = [struct.pack(">BBHII", 0x80, 33, (64_000 + i) & 0xFFFF, int(i * INTERVAL * 90_000), 0) + payload
             for i, payload in enumerate(payloads)]
    sent = [(i * INTERVAL, 0, datagram) for i, datagram in enumerate(media)]
    matrix = SIDE * SIDE
    for start in range(0, len(media) - 2 * matrix, matrix):
        for i in range(SIDE):
            row = media[start + i * SIDE:start + (i + 1) * SIDE]
            sent.append(((start + (i + 1) * SIDE - 0.5) * INTERVAL, 4, parity(row, True)))
            # As the standard has it, columns are spread over the time of the next matrix.
            column = media[start + i:start + matrix:SIDE]
            sent.append(((start + matrix + i * SIDE + 0.5) * INTERVAL, 2, parity(column, False)))
    return sorted(sent, key=lambda entry: entry[0])


def damaged(sent: list[tuple[float, int, bytes]], damage: Damage, seed: int) -> list[tuple[float, int, bytes]]:
    chance = random.Random(seed)
    length = sent[-1][0]
    came, losing, busy_until = [], {0: 0, 2: 0, 4: 0}, 0.0
    for at, port, datagram in sent:
        calm = at < CALM_START or at > length - CALM_END
        if not calm and losing[port] == 0 and chance.random() < damage.loss / damage.burst:
            losing[port] = damage.burst
        if losing[port] > 0 or damage.down[0] <= at < damage.down[1]:
            losing[port] -= losing[port] > 0
            continue
        late = damage.delay
        if not calm and chance.random() < damage.reordered:
            late += chance.randint(1, 5) * INTERVAL * 1.01
        elif damage.jitter:
            busy_until = max(at + chance.random() * damage.jitter, busy_until)
            late += busy_until - at
        came.append((at + late, port, datagram))
        if not calm and chance.random() < damage.doubled:
            came.append((at + late + chance.randint(0, 3) * INTERVAL, port, datagram))
    return came


@dataclass
class Receiver:
    name: str
    form: str
    paths: int
    command: str  # {0}, {1}: ports of the paths; {out}: where it sends what it makes of them
    fec: bool = False
    raw: bool = False
    ports: list[int] = field(default_factory=list)
    process: subprocess.Popen = field(init=False)
    inlet: socket.socket = field(init=False)
    said: IO[str] = field(init=False)
    came: list[tuple[float, bytes]] = field(default_factory=list)


def receivers(tool: str) -> Iterable[Receiver]:
    relay = f"{tool} relay '{{0}}' udp://127.0.0.1:{{out}}"
    url = "rtp://127.0.0.1:{}?reorder=" + str(WINDOW_MS)
    yield Receiver("qxvrtp", "RTP", 1, relay.replace("{0}", url.replace("{}", "{0}")))
    yield Receiver("qxvrtp, reorder=0", "RTP", 1, relay.replace("{0}", "rtp://127.0.0.1:{0}?reorder=0"))
    yield Receiver("qxvrtp, raw", "RTP", 1, relay.replace("{0}", "udp://127.0.0.1:{0}"), raw=True)
    source = ("udpsrc port={0} caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=MP2T,"
              "payload=33 ")
    depay = "! rtpjitterbuffer latency={} ! rtpmp2tdepay ! udpsink host=127.0.0.1 port={{out}} sync=false "
    if shutil.which("gst-launch-1.0"):
        gst = "exec gst-launch-1.0 -q " + source
        yield Receiver("rtpjitterbuffer", "RTP", 1, gst + depay.format(WINDOW_MS))
    if shutil.which("reordertp"):
        multicat = f"exec reordertp -U -b {WINDOW_MS} "
        yield Receiver("reordertp", "RTP", 1, multicat + "@127.0.0.1:{0} 127.0.0.1:{out}")
    yield Receiver("ffmpeg", "RTP", 1,
                   f"exec ffmpeg -nostdin -v debug -max_delay {WINDOW_MS}000 -i 'rtp://127.0.0.1:{{0}}' "
                   "-map 0 -c copy -f null -")
    yield Receiver("qxvrtp", "2022-7", 2,
                   relay.replace("{0}", url.replace("{}", "{0}") + "+" + url.replace("{}", "{1}")))
    if shutil.which("reordertp"):
        yield Receiver("reordertp", "2022-7", 2,
                       multicat + "-D @127.0.0.1:{0} @127.0.0.1:{1} 127.0.0.1:{out}")
    yield Receiver("qxvrtp", "FEC", 1, relay.replace("{0}", url.replace("{}", "{0}") + "&fec"), True)
    if shutil.which("gst-launch-1.0"):
        parts = "".join(f"udpsrc port={{{port}}} caps=application/x-rtp,payload=96 ! d.fec_{i} "
                        for i, port in enumerate(("columns", "rows")))
        yield Receiver("rtpst2022-1-fecdec", "FEC", 1,
                       gst + "! rtpst2022-1-fecdec name=d size-time=2000000000 " +
                       depay.format(FEC_WINDOW_MS) + parts, True)


class Run:
    """All receivers, once, with one kind of damage."""

    def __init__(self, tool: str, folder: Path, only: str) -> None:
        self.receivers = [each for each in receivers(tool) if re.search(only, f"{each.name} {each.form}")]
        self.out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        port = 10_000
        for each in self.receivers:
            each.ports = [port, port + 10]
            each.inlet = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            each.inlet.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
            each.inlet.bind(("127.0.0.1", port + 20))
            words = each.command.format(*each.ports, out=port + 20, columns=port + 2, rows=port + 4)
            each.said = (folder / f"said{port}").open("w+")
            each.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "sh", "-c", words],
                                            stdout=each.said, stderr=subprocess.STDOUT)
            port += 100
        time.sleep(2.0)

    def play(self, paths: list[list[tuple[float, int, bytes]]]) -> float:
        events = []
        for each in self.receivers:
            for path in range(each.paths):
                events += [(at, each.ports[path] + port, datagram[12:] if each.raw else datagram)
                           for at, port, datagram in paths[path] if port == 0 or each.fec]
        events.sort(key=lambda event: event[0])
        begun = time.monotonic()
        sockets = {each.inlet: each for each in self.receivers}
        for at, port, datagram in events:
            while (left := begun + at - time.monotonic()) > 0:
                self.collect(sockets, left)
            self.out.sendto(datagram, ("127.0.0.1", port))
        end = time.monotonic() + 2.0
        while (left := end - time.monotonic()) > 0:
            self.collect(sockets, left)
        for each in self.receivers:
            if each.process.poll() is None:
                each.process.terminate()
        for each in self.receivers:
            each.process.wait(10)
            each.inlet.close()
        return begun

    @staticmethod
    def collect(sockets: dict, seconds: float) -> None:
        for ready in select.select(list(sockets), [], [], seconds)[0]:
            sockets[ready].came.append((time.monotonic(), ready.recv(65536)))


Figures = list[int | None]  # by COLUMNS


def examine(receiver: Receiver, index: dict[bytes, int], counted: range, begun: float) -> Figures:
    if receiver.name == "ffmpeg":
        # It writes its own packets; but it tells of each gap.
        receiver.said.seek(0)
        return [None, None, receiver.said.read().count("Continuity check failed"), None, None, None]
    counters: dict[int, int] = {}
    errors, disorder, last = 0, 0, -1
    seen, delays = set(), []
    for at, data in receiver.came:
        for place in range(0, len(data) - PACKET + 1, PACKET):
            pid, counter = pid_of(data, place), data[place + 3] & 15
            if pid != NULL_PID and data[place + 3] & 0x10:
                errors += pid in counters and counter != counters[pid] + 1 & 15
                counters[pid] = counter
            number = index.get(data[place:place + PACKET])
            if number is None or number not in counted:
                continue
            disorder += number <= last
            last = number
            seen.add(number)
            delays.append(at - begun - number // 7 * INTERVAL)
    expected = sum(1 for number in index.values() if number in counted)
    if not delays:
        return [0, expected, 0, 0, None, None]
    return [len(seen), expected - len(seen), errors, disorder, round(median(delays) * 1e3), round(max(delays) * 1e3)]


def row(cells: Iterable[object]) -> str:
    return "| " + " | ".join("-" if cell is None else str(cell) for cell in cells) + " |"


# Of each scenario and receiver (form, name): for each seed, what came and what became of it.
Results = dict[str, dict[tuple[str, str], list[tuple[int, Figures]]]]


def tell(results: Results) -> None:
    for form in "RTP", "2022-7", "FEC":
        shown = [receiver for receiver in next(iter(results.values())) if receiver[0] == form]
        print("\n" + row([form, "lost on the way", *(name for _, name in shown)]))
        print("|---|" + "---:|" * (len(shown) + 1))
        for scenario, measured in results.items():
            whole = sum(came for came, _ in results["nothing"][shown[0]]) if "nothing" in results else 0
            cells = []
            for receiver in shown:
                missing, errors = ([figures[i] for _, figures in measured[receiver]] for i in (1, 2))
                cells.append(f"{'-' if None in missing else sum(missing)} / {sum(errors)}")
            print(row([scenario, whole - sum(came for came, _ in measured[shown[0]]), *cells]))
    for scenario, measured in results.items():
        for (form, name), all_figures in measured.items():
            ours = measured.get((form, "qxvrtp"), [])
            for seed, ((_, mine), (_, theirs)) in enumerate(zip(ours, all_figures)):
                worse = [COLUMNS[i] for i in (1, 2) if theirs[i] is not None and mine[i] > theirs[i]]
                if worse:
                    print(f"{scenario}, {form}, run {seed + 1}: worse than {name} in {', '.join(worse)}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenario", nargs="*", help="begins of names; without one all are measured")
    parser.add_argument("--tool", default="build/bin/qxvrtp")
    parser.add_argument("--only", default="", help="receivers whose names have this in them")
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--seeds", type=int, default=3)
    options = parser.parse_args()
    links = subprocess.check_output(["ip", "-brief", "link", "show", "up"], text=True)
    if [line.split()[0] for line in links.splitlines()] != ["lo"]:
        sys.exit("It needs a network of its own: scripts/isolate.sh bench/redundancy.py")
    print(row(["damage", "form", "receiver", "came", *COLUMNS]))
    print("|---|---|---|" + "---:|" * (len(COLUMNS) + 1))
    results: Results = {}
    with tempfile.TemporaryDirectory() as name:
        payloads = make_stream(Path(name), options.seconds)
        sent = make_datagrams(payloads)
        packets = [payload[at:at + PACKET] for payload in payloads for at in range(0, PAYLOAD, PACKET)]
        index: dict[bytes, int] = {}
        for number, packet in enumerate(packets):
            index[packet] = -1 if packet in index else number
        index = {packet: number for packet, number in index.items() if number >= 0}
        counted = range(int(CALM_START / INTERVAL) * 7, len(packets) - int(CALM_END / INTERVAL) * 7)
        chosen = [each for each in SCENARIOS if not options.scenario or each.startswith(tuple(options.scenario))]
        for scenario, seed in ((each, seed) for each in chosen for seed in range(options.seeds)):
            paths = [damaged(sent, damage, seed * 10 + 10 + i) for i, damage in enumerate(SCENARIOS[scenario])]
            run = Run(options.tool, Path(name), options.only)
            begun = run.play(paths)
            for each in run.receivers:
                came = {datagram for path in paths[:each.paths] for _, port, datagram in path if port == 0}
                whole = sum(1 for datagram in came for at in range(12, 12 + PAYLOAD, PACKET)
                            if index.get(datagram[at:at + PACKET], -1) in counted)
                figures = examine(each, index, counted, begun)
                print(row([scenario, each.form, each.name, whole, *figures]), flush=True)
                results.setdefault(scenario, {}).setdefault((each.form, each.name), []).append((whole, figures))
    tell(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
