#!/usr/bin/env python3
"""Measures programs that send and receive 16 streams of 8 Mbit/s as they are deployed.

Every contender is a command line, and nothing is pinned to a processor. All contenders are measured
once in turn, then again, round after round. The table shows the median of each number; a ratio is
the median of the ratios within each round. The CPU time is that of all threads of all processes of
a contender, user and system, by the processes' own CPU clocks.

Several builds of the library can be compared in one run:
    deployed.py --module old=FOLDER/libQXV_RTP.so --module new=FOLDER/libQXV_RTP.so receive
"""

import argparse
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median

from processes import (
    COST,
    PORTS,
    RATE_BPS,
    STREAMS,
    Traffic,
    Values,
    run,
    udp_count,
    usage_during,
    wait_for_sockets,
    with_cost,
)

ROOT = Path(__file__).resolve().parent.parent
PAYLOAD = 7 * 188
PERIOD_NS = PAYLOAD * 8 * 1_000_000_000 // RATE_BPS
RECEIVE_BUFFER = 8 << 20

BARE = "bare loop"
MULTICAT = "multicat"
FEED = "host feeds every 40 ms"
BLOCKING = "host, 16 blocking readers"
POLL_1 = "host reads every 1 ms"
POLL_10 = "host reads every 10 ms"

SECTIONS = ("send", "spread", "bursts")


@dataclass
class Contender:
    """Something that is measured: the command lines that it consists of, and what they cost."""

    name: str
    commands: list[list[str]]
    library: Path | None = None  # of the module, which must then be in use
    rounds: list[Values] = field(default_factory=list)


def measure_receiving(
    contender: Contender, traffic: Traffic, routine: str, seconds: float
) -> Values:
    traffic.clear()
    with run(contender.commands, contender.library) as receiver:
        wait_for_sockets(receiver)
        full = udp_count("RcvbufErrors")
        # The rings are filled once: a page that is new costs more than the datagrams on it.
        with run([traffic.command("send-bursts", 70e6)]) as sender:
            time.sleep(0.8)
            traffic.stop(sender)
        with run([traffic.command(routine)]) as sender:
            time.sleep(0.7)
            before = traffic.sent() - udp_count("RcvbufErrors")
            values = usage_during(receiver, seconds)
            # What the kernel drops costs the receiver nothing.
            received = traffic.sent() - udp_count("RcvbufErrors") - before
            values = with_cost(values, received)
            traffic.stop(sender)
        time.sleep(0.05)
        values["lost"] = udp_count("RcvbufErrors") - full
        if contender.library:
            # Each blocking reader may have been waiting for the rest of its 64 KiB.
            missing = traffic.sent() - int(receiver.output()) // PAYLOAD
            if missing > STREAMS * (65536 // PAYLOAD + 1):
                values["lost"] += missing
    return values


def lateness_ms(traffic: Traffic, since_ns: int, until_ns: int) -> tuple[int, list[float]]:
    """Datagrams that are missing, and how late each of the others came, in order.

    A datagram is due one period after the one before; the earliest of a stream counts as punctual.
    """
    missing = 0
    late: list[float] = []
    for stream in range(STREAMS):
        stamps = traffic.stamps(stream)
        seen = [(n, stamp) for n, stamp in enumerate(stamps) if since_ns <= stamp < until_ns]
        if not seen:
            raise RuntimeError("a stream is not sent")
        missing += seen[-1][0] - seen[0][0] + 1 - len(seen)
        offsets = [stamp - n * PERIOD_NS for n, stamp in seen]
        late += [(offset - min(offsets)) / 1e6 for offset in offsets]
    return missing, sorted(late)


def measure_sending(contender: Contender, traffic: Traffic, seconds: float) -> Values:
    traffic.clear()
    with run([traffic.command("receive-stamps")]) as receiver:
        wait_for_sockets(receiver)
        with run(contender.commands, contender.library) as sender:
            time.sleep(1.5)
            since = time.time_ns()
            values = usage_during(sender, seconds)
            until = time.time_ns()
        time.sleep(0.05)
        missing, late = lateness_ms(traffic, since, until)
    values = with_cost(values, len(late))
    values["late p50 ms"] = late[len(late) // 2]
    values["late p99 ms"] = late[len(late) * 99 // 100]
    values["lost"] = missing
    return values


def write_file(folder: Path, seconds: float) -> Path:
    """Null packets, and for multicat when each datagram is due, in units of 27 MHz."""
    datagrams = int(seconds * 1e9 / PERIOD_NS)
    file = folder / "stream.ts"
    packet = b"\x47\x1f\xff\x10" + b"\xff" * 184
    file.write_bytes(packet * 7 * datagrams)
    due = (n * PERIOD_NS * 27 // 1000 for n in range(datagrams))
    file.with_suffix(".aux").write_bytes(b"".join(struct.pack(">Q", at) for at in due))
    return file


@dataclass
class Section:
    title: str
    contenders: list[Contender]
    measure: Callable[[Contender], Values]
    goals: list[tuple[str, str, float]]  # contender, reference, the ratio that it may reach


Modules = list[tuple[str, Path]]


def hosts(modules: Modules, program: Path, modes: dict[str, list[str]]) -> list[Contender]:
    """One contender for each mode of the plain host and each build of the library."""
    return [
        Contender(f"{name} [{label}]" if label else name, [[str(program), *mode]], library)
        for name, mode in modes.items()
        for label, library in modules
    ]


def sections(modules: Modules, programs: Path, folder: Path, seconds: float) -> dict[str, Section]:
    traffic = Traffic(programs / "traffic", folder)
    host = programs / "plain_host"
    stream = str(write_file(folder, seconds + 5))

    def peers(
        multicat: Callable[[int], list[str]], gstreamer: Callable[[int], str]
    ) -> list[Contender]:
        found = []
        if shutil.which("multicat"):
            found.append(Contender(MULTICAT, [["multicat", *multicat(port)] for port in PORTS]))
        if shutil.which("gst-launch-1.0"):
            pipelines = " ".join(gstreamer(port) for port in PORTS).split()
            found.append(Contender("GStreamer", [["gst-launch-1.0", "-q", *pipelines]]))
        return found

    def receive(what: str, routine: str, goals: list[tuple[str, str, float]]) -> Section:
        return Section(
            f"receiving 16 x 8 Mbit/s, {what}",
            [
                Contender(BARE, [traffic.command("receive-epoll")]),
                *hosts(
                    modules,
                    host,
                    {BLOCKING: ["blocking", "64"], POLL_1: ["poll", "1"], POLL_10: ["poll", "10"]},
                ),
                *peers(
                    lambda port: ["-U", f"@127.0.0.1:{port}", "/dev/null"],
                    lambda port: f"udpsrc address=127.0.0.1 port={port} "
                    f"buffer-size={RECEIVE_BUFFER} ! fakesink sync=false",
                ),
            ],
            lambda contender: measure_receiving(contender, traffic, routine, seconds),
            [(BLOCKING, MULTICAT, 0.9), *goals],
        )

    return {
        "send": Section(
            "sending 16 x 8 Mbit/s",
            [
                Contender(BARE, [traffic.command("send-bursts")]),
                *hosts(modules, host, {FEED: ["send", str(RATE_BPS)]}),
                *peers(
                    lambda port: [stream, f"127.0.0.1:{port}"],
                    lambda port: f"filesrc location={stream} blocksize={PAYLOAD} ! "
                    f"identity datarate={RATE_BPS // 8} ! "
                    "video/mpegts,packetsize=188,systemstream=true ! rtpmp2tpay ! "
                    f"udpsink host=127.0.0.1 port={port} sync=true",
                ),
            ],
            lambda contender: measure_sending(contender, traffic, seconds),
            [(FEED, MULTICAT, 0.55)],
        ),
        "spread": receive("evenly spread", "send-spread", []),
        "bursts": receive(
            "in bursts of a millisecond", "send-bursts", [(POLL_1, BARE, 1.3), (POLL_10, BARE, 0.8)]
        ),
    }


@dataclass
class Ratio:
    middle: float
    least: float
    most: float

    def __str__(self) -> str:
        return f"{self.middle:.2f} ({self.least:.2f} to {self.most:.2f})"


def ratio(contender: Contender, reference: Contender) -> Ratio | None:
    """Of what both cost within each round; none when either has not come through all rounds."""
    if not contender.rounds or len(contender.rounds) != len(reference.rounds):
        return None
    all_rounds = zip(contender.rounds, reference.rounds)
    ratios = [one[COST] / other[COST] for one, other in all_rounds]
    return Ratio(median(ratios), min(ratios), max(ratios))


def summary(contender: Contender) -> Values:
    """The median of each number; of what was lost, the most."""
    rounds = contender.rounds
    values = {name: median(one[name] for one in rounds) for name in rounds[0]}
    values["lost"] = max(one["lost"] for one in rounds)
    return values


def print_table(section: Section) -> None:
    print(f"\n{section.title}")
    measured = [contender for contender in section.contenders if contender.rounds]
    references = [one for one in measured if one.name in (BARE, MULTICAT)]
    columns = [name for name in summary(measured[0]) if name != COST] if measured else []
    heads = [COST, "(of the rounds)", *(f"x {one.name}" for one in references), *columns]
    widths = [max(len(head), 9) for head in heads]
    print(" " * 34 + "  ".join(head.rjust(width) for head, width in zip(heads, widths)))
    for one in measured:
        costs = [values[COST] for values in one.rounds]
        cells = [f"{median(costs):.1f}", f"({min(costs):.1f} to {max(costs):.1f})"]
        for reference in references:
            against = ratio(one, reference)
            cells.append(f"{against.middle:.2f}" if against else "-")
        values = summary(one)
        cells += [f"{values[name]:.{0 if values[name] >= 100 else 2}f}" for name in columns]
        print(f"{one.name:34}" + "  ".join(cell.rjust(n) for cell, n in zip(cells, widths)))


def verdicts(section: Section) -> list[dict[str, object]]:
    """Prints each goal's ratio, and what each build of the library costs beside the first one."""
    found: list[dict[str, object]] = []

    def tell(contender: Contender, reference: Contender, goal: float | None) -> None:
        value = ratio(contender, reference)
        if value is None:
            return
        verdict = "" if goal is None else ", met" if value.middle <= goal else ", NOT met"
        limit = "" if goal is None else f", goal {goal:.2f}"
        print(f"  {contender.name} / {reference.name}: {value}{limit}{verdict}")
        found.append(
            {"contender": contender.name, "reference": reference.name, "goal": goal}
            | vars(value)
        )

    by_name = {contender.name: contender for contender in section.contenders}
    for name, reference, goal in section.goals:
        for contender in section.contenders:
            if contender.name.split(" [")[0] == name and reference in by_name:
                tell(contender, by_name[reference], goal)
    first: dict[str, Contender] = {}
    for contender in section.contenders:
        if contender.library:
            baseline = first.setdefault(contender.name.split(" [")[0], contender)
            if baseline is not contender:
                tell(contender, baseline, None)
    return found


def measure(section: Section, rounds: int) -> None:
    """All contenders in turn, and every other time in reverse; one that fails is left out."""
    failed: set[str] = set()
    for number in range(rounds):
        for contender in section.contenders[:: -1 if number % 2 else 1]:
            if contender.name in failed:
                continue
            try:
                contender.rounds.append(section.measure(contender))
            except (OSError, RuntimeError, ValueError, subprocess.TimeoutExpired) as error:
                print(f"{contender.name}: {error}; left out", file=sys.stderr)
                failed.add(contender.name)
                contender.rounds.clear()


def module_argument(text: str) -> tuple[str, Path]:
    label, _, path = text.rpartition("=")
    file = Path(path).absolute()
    for name in (file.name, "libQXV_RTP.so.0", "libZAQSockets.so"):
        if not (file.parent / name).exists():
            raise argparse.ArgumentTypeError(f"there is no {file.parent / name}")
    return label, file


def has_own_network() -> bool:
    """The ports are fixed: nobody else may be here, and nothing may leave the machine."""
    links = subprocess.run(
        ["ip", "-brief", "link", "show", "up"], check=True, capture_output=True, text=True
    )
    return [line.split()[0] for line in links.stdout.splitlines()] == ["lo"]


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument(
        "section",
        nargs="*",
        help=f"{', '.join(SECTIONS)}; receive is the last two; all if none is given",
    )
    parser.add_argument(
        "--module",
        action="append",
        type=module_argument,
        metavar="[LABEL=]FILE",
        help="libQXV_RTP.so, with libZAQSockets.so beside it; may be repeated",
    )
    parser.add_argument(
        "--programs",
        type=Path,
        default=ROOT / "build-bench/bin",
        help="folder of plain_host and traffic",
    )
    parser.add_argument(
        "--only",
        metavar="TEXT",
        help=f"only contenders with this in their name, {BARE} and {MULTICAT}",
    )
    parser.add_argument("--rounds", type=int, help="rounds of all contenders in turn (5)")
    parser.add_argument("--seconds", type=float, help="of one measurement (3)")
    parser.add_argument("--quick", action="store_true", help="one round of one second")
    parser.add_argument("--json", type=Path, help="file for all numbers of all rounds")
    options = parser.parse_args()
    for name in options.section:
        if name not in SECTIONS and name != "receive":
            parser.error(f"there is no section {name}")
    if not has_own_network():
        if os.environ.get("QXV_DEPLOYED_AGAIN"):
            parser.error("this needs a network of its own")
        os.environ["QXV_DEPLOYED_AGAIN"] = "1"
        isolate = str(ROOT / "scripts/isolate.sh")
        os.execv(isolate, [isolate, sys.executable, str(Path(__file__).resolve()), *sys.argv[1:]])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    return bench(options)


def bench(options: argparse.Namespace) -> int:
    programs = options.programs.absolute()
    rounds = options.rounds or (1 if options.quick else 5)
    seconds = options.seconds or (1.0 if options.quick else 3.0)
    modules = options.module or [module_argument(str(programs.parent / "lib/libQXV_RTP.so"))]
    report: list[object] = []
    with tempfile.TemporaryDirectory() as folder:
        all_sections = sections(modules, programs, Path(folder), seconds)
        wanted = {
            name
            for given in options.section or SECTIONS
            for name in (SECTIONS[1:] if given == "receive" else (given,))
        }
        for name, section in all_sections.items():
            if name not in wanted:
                continue
            if options.only:
                section.contenders = [
                    one
                    for one in section.contenders
                    if options.only in one.name or one.name in (BARE, MULTICAT)
                ]
            measure(section, rounds)
            print_table(section)
            report.append(
                {
                    "section": section.title,
                    "contenders": {one.name: one.rounds for one in section.contenders},
                    "ratios": verdicts(section),
                }
            )
    if options.json:
        options.json.parent.mkdir(parents=True, exist_ok=True)
        options.json.write_text(json.dumps(report, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
