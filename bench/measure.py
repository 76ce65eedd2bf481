"""What processes cost, and when the datagrams that they send arrive."""

import os
import subprocess
import tempfile
import time
from array import array
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from statistics import linear_regression

from stream import PAYLOAD, PORT, Load

COST, RESIDENT, LOST, LATEST = "us/datagram", "resident MiB", "lost", "late max ms"
STAMPS = 1 << 17  # of each channel, as in Packets.h

Commands = list[list[str]]
Values = dict[str, float]


class Group:
    """The processes of one command line or several; `place` is for taskset, None for anywhere."""

    def __init__(self, commands: Commands, place: str | None = None) -> None:
        self.said, self.complaint = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        # They end with this process, however it ends.
        prefix = ["setpriv", "--pdeathsig", "KILL"] + (["taskset", "-c", place] if place else [])
        self.processes = [
            subprocess.Popen(prefix + command, stdin=subprocess.DEVNULL, stdout=self.said,
                             stderr=self.complaint)
            for command in commands
        ]

    def check(self) -> None:
        if any(process.poll() is not None for process in self.processes):
            words = os.pread(self.complaint.fileno(), 1000, 0).decode(errors="replace").strip()
            raise RuntimeError(f"has ended: {words}")

    def cpu_ns(self) -> int:
        # The kernel's number for the CPU clock of a process (CPUCLOCK_SCHED).
        return sum(time.clock_gettime_ns(~process.pid << 3 | 2) for process in self.processes)

    def status(self, tasks: str, name: str) -> int:
        """The sum of a number in the kernel's tables of these processes."""
        lines = [line for process in self.processes
                 for table in Path(f"/proc/{process.pid}").glob(tasks)
                 for line in table.read_text().splitlines()]
        return sum(int(line.split()[1]) for line in lines if line.startswith(name))

    def output(self) -> int:
        """The last number that was printed, 0 if there is none."""
        return int((os.pread(self.said.fileno(), 1 << 16, 0).split() or [b"0"])[-1])

    def wait(self, seconds: float) -> int:
        for process in self.processes:
            if process.wait(timeout=seconds) != 0:
                self.check()
        return self.output()


@contextmanager
def run(commands: Commands, place: str | None = None) -> Iterator[Group]:
    group = Group(commands, place)
    try:
        yield group
    finally:
        for process in group.processes:
            process.kill()
            process.wait()


def udp_count(name: str) -> int:
    """One of the kernel's counts of datagrams in this network."""
    lines = Path("/proc/net/snmp").read_text().splitlines()
    names, numbers = (line.split() for line in lines if line.startswith("Udp:"))
    return int(numbers[names.index(name)])


def wait_until(condition: Callable[[], bool], group: Group, complaint: str) -> None:
    deadline = time.monotonic() + 15
    while not condition():
        group.check()
        if time.monotonic() > deadline:
            raise RuntimeError(complaint)
        time.sleep(0.05)


def wait_for_sockets(receiver: Group, load: Load) -> None:
    def opened() -> bool:
        lines = Path("/proc/net/udp").read_text().splitlines()[1:]
        return set(load.ports) <= {int(line.split()[1].split(":")[1], 16) for line in lines}

    wait_until(opened, receiver, "not all sockets were opened")


def idle_s() -> float:
    """How long all processors have been idle, together."""
    return int(Path("/proc/stat").read_text().split()[4]) / os.sysconf("SC_CLK_TCK")


def usage_during(group: Group, seconds: float,
                 count: Callable[[], int]) -> tuple[Values, int, int]:
    """What the group takes in so many seconds; and the count at their begin and end."""

    def read() -> tuple[int, float, int]:
        return count(), time.monotonic(), group.cpu_ns()

    group.check()
    idle, switches = idle_s(), group.status("task/*/status", "voluntary_ctxt_switches")
    begin, start, cpu_ns = read()
    time.sleep(seconds)
    end, stop, cpu_end_ns = read()
    group.check()
    elapsed, cpu_ns = stop - start, cpu_end_ns - cpu_ns
    switches = group.status("task/*/status", "voluntary_ctxt_switches") - switches
    values = {
        COST: cpu_ns / 1000,  # until it is divided
        "% of a core": cpu_ns / elapsed / 1e7,
        "switches/s": switches / elapsed,
        RESIDENT: group.status("status", "VmRSS") / 1024,
        "% idle": (idle_s() - idle) / elapsed / (os.cpu_count() or 1) * 100,
        "datagrams/s": 1 / elapsed,  # until it is multiplied
    }
    return values, begin, end


def for_datagrams(usage: Values, datagrams: int) -> Values:
    if datagrams <= 0:
        raise RuntimeError("nothing moves")
    usage[COST] /= datagrams
    usage["datagrams/s"] *= datagrams
    return usage


def lateness(file: Path, load: Load, since_ns: int, until_ns: int) -> Values:
    """How late datagrams are, and how far off the rate of the worst channel is.

    A datagram is due one period after the one before; the earliest of a channel counts as
    punctual. The rate is the slope of the line of least squares through the arrival times, which
    hardly feels their lateness, as the time from the first to the last one would.
    """
    stamps = array("q", file.read_bytes())
    missing, late, worst_ppm = 0, array("d"), 0.0
    for channel in range(load.channels):
        part = stamps[channel * STAMPS : (channel + 1) * STAMPS]
        seen = [(n, at) for n, at in enumerate(part) if since_ns <= at < until_ns]
        if not seen:
            raise RuntimeError("a stream is not sent")
        first, last = seen[0][0], seen[-1][0]
        missing += last + 1 - first - len(seen)
        offsets = [at - since_ns - n * load.period_ns for n, at in seen]
        least = min(offsets)
        late.extend((offset - least) / 1e6 for offset in offsets)
        if until_ns - since_ns > 30e9:
            slope = linear_regression([n for n, _ in seen], offsets).slope
            worst_ppm = max(worst_ppm, abs(slope) / load.period_ns * 1e6)
    ordered = sorted(late)
    values = {
        "late p50 ms": ordered[len(ordered) // 2],
        "late p99 ms": ordered[len(ordered) * 99 // 100],
        LATEST: ordered[-1],
        LOST: missing,
        "datagrams": len(ordered),
    }
    return values | ({"rate ppm": worst_ppm} if worst_ppm else {})


class Bench:
    """Measures one contender at a time."""

    def __init__(self, traffic: Path, folder: Path, warm_up_s: float) -> None:
        self.traffic, self.folder, self.warm_up_s = traffic, folder, warm_up_s

    def routine(self, name: str, load: Load, *last: object) -> list[str]:
        words = [self.traffic, name, load.channels, load.rate_bps, load.form, *last]
        return [str(word) for word in words]

    def places(self, pinned: bool) -> tuple[str | None, str | None]:
        """Processors for the traffic and for what is measured."""
        processors = os.cpu_count() or 1
        return ("0", f"1-{processors - 1}") if pinned and processors > 1 else (None, None)

    def receiving(self, commands: Commands, load: Load, way: str, seconds: float,
                  pinned: bool) -> Values:
        there, here = self.places(pinned)
        with run(commands, here) as receiver:
            wait_for_sockets(receiver, load)
            # The rings are filled once: a page that is new costs more than the datagrams on it.
            fast = Load(load.channels, 70_000_000, load.form)
            with run([self.routine("bursts", fast, 0.7)], there) as sender:
                sender.wait(20)
            time.sleep(0.05)
            lost = udp_count("InErrors") + receiver.output()
            with run([self.routine(way, load)], there):
                time.sleep(self.warm_up_s)
                # What the kernel drops costs the receiver nothing.
                values, before, after = usage_during(
                    receiver, seconds, lambda: udp_count("OutDatagrams") - udp_count("InErrors"))
            time.sleep(0.05)
            lost = udp_count("InErrors") + receiver.output() - lost
        return for_datagrams(values, after - before) | {LOST: lost}

    def sending(self, commands: Commands, load: Load, seconds: float, pinned: bool) -> Values:
        there, here = self.places(pinned)
        stamps = self.folder / "stamps"
        stamps.unlink(missing_ok=True)

        def flowing() -> bool:
            with stamps.open("rb") as file:
                seen = [os.pread(file.fileno(), 800, channel * STAMPS * 8)
                        for channel in range(load.channels)]
            return all(map(any, seen))

        with run([self.routine("stamps", load, stamps)], there) as receiver:
            wait_for_sockets(receiver, load)
            with run(commands, here) as sender:
                wait_until(flowing, sender, "it does not send")
                time.sleep(2 * self.warm_up_s)
                values, since, until = usage_during(sender, seconds, time.time_ns)
            time.sleep(0.05)
            late = lateness(stamps, load, since, until)
        return for_datagrams(values, int(late.pop("datagrams"))) | late

    def unpaced(self, commands: Commands, seconds: float) -> Values:
        """Into a socket that is emptied without sleeping; what it cannot take counts, too."""
        there, here = self.places(True)
        load = Load(1)

        def arrived() -> int:
            return udp_count("InDatagrams") + udp_count("InErrors")

        with run([self.routine("spin", load)], there) as receiver:
            wait_for_sockets(receiver, load)
            with run(commands, here) as sender:
                start = arrived()
                # More than a host sends in advance.
                wait_until(lambda: arrived() - start > 20000, sender, "it does not send")
                values, before, after = usage_during(sender, seconds, arrived)
        return for_datagrams(values, after - before)

    def capacity(self, commands: Commands, channels: int, routine: str, seconds: float) -> Values:
        """The highest rate without loss: halves the interval, on a scale of ratios, to 4 %."""
        there, here = self.places(True)
        lowest, highest, best, limited = 3e8, 30e9, 0.0, False
        with run(commands, here) as receiver:
            wait_for_sockets(receiver, Load(channels))

            def attempt(rate: float) -> tuple[float, bool]:
                lost = udp_count("InErrors") + receiver.output()
                load = Load(channels, int(rate / channels), "rtp")
                with run([self.routine(routine, load, seconds)], there) as sender:
                    sent = sender.wait(20)
                time.sleep(0.1)
                none_lost = udp_count("InErrors") + receiver.output() == lost
                return sent * PAYLOAD * 8 / seconds, none_lost

            while highest / lowest > 1.04:
                rate = (lowest * highest) ** 0.5
                # Where only the sender fell behind, another program may have held it up.
                for _ in range(3):
                    got, lossless = attempt(rate)
                    reached = got >= 0.97 * rate
                    if reached or not lossless:
                        break
                if lossless:
                    lowest = max(lowest, min(rate, got))
                    best = max(best, got)
                if not (lossless and reached):
                    highest = rate
                    limited = lossless
        return {"Mbit/s": best / 1e6, "sender's limit": limited}

    def resting(self, commands: Commands, seconds: float) -> Values:
        with run(commands) as group:
            time.sleep(2.5)  # housekeeping opens sockets once a second
            values, _, _ = usage_during(group, seconds, lambda: 0)
        return {name: values[name] for name in ("% of a core", "switches/s", RESIDENT)}
