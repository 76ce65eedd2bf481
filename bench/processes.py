"""The processes that a bench measures, and what they cost; the traffic around them."""

import mmap
import os
import struct
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

STREAMS = 16
RATE_BPS = 8_000_000
PORTS = [5000 + stream for stream in range(STREAMS)]

COST = "us/datagram"
Values = dict[str, float]


class Group:
    """The processes of one command line or several."""

    def __init__(self, commands: list[list[str]], library: Path | None = None) -> None:
        self.library = library
        environment = dict(os.environ)
        if library:
            environment["LD_LIBRARY_PATH"] = str(library.parent)
        # They end with this process, however it ends.
        self.processes = [
            subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *command],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE if library else subprocess.DEVNULL,
                stderr=None if library else subprocess.DEVNULL,
                env=environment,
            )
            for command in commands
        ]

    def check(self) -> None:
        """Raises an error when a process has ended."""
        for process in self.processes:
            if process.poll() is not None:
                raise RuntimeError(f"{process.args!r} has ended")

    def check_library(self) -> None:
        """Raises an error when another build of the library is in use."""
        if not self.library:
            return
        maps = Path(f"/proc/{self.processes[0].pid}/maps").read_text()
        for name in ("libQXV_RTP.so", "libZAQSockets.so"):
            file = (self.library.parent / name).resolve()
            if f" {file}\n" not in maps:
                raise RuntimeError(f"{file} is not in use")

    def cpu_ns(self) -> int:
        # The kernel's number for the CPU clock of a process (CPUCLOCK_SCHED).
        return sum(time.clock_gettime_ns(~process.pid << 3 | 2) for process in self.processes)

    def switches(self) -> int:
        """How often threads have waited until now."""
        lines = [
            line
            for process in self.processes
            for status in Path(f"/proc/{process.pid}/task").glob("*/status")
            for line in status.read_text().splitlines()
        ]
        return sum(int(line.split()[1]) for line in lines if line.startswith("voluntary"))

    def output(self) -> str:
        """Asks a single process to end, and returns what it has printed."""
        self.processes[0].terminate()
        return str(self.processes[0].communicate(timeout=10)[0].decode())

    def wait(self) -> None:
        for process in self.processes:
            process.wait(timeout=10)

    def close(self) -> None:
        for process in self.processes:
            process.kill()
            process.communicate()


@contextmanager
def run(commands: list[list[str]], library: Path | None = None) -> Iterator[Group]:
    group = Group(commands, library)
    try:
        yield group
    finally:
        group.close()


class Traffic:
    """What our own programs count: the file that they share, as bench/Traffic.h lays it out."""

    STOP, SENT, STAMPS = 4, 8, 272
    STAMPS_OF_STREAM = 1 << 17

    def __init__(self, program: Path, folder: Path) -> None:
        self.program = program
        self.path = folder / "board"
        self.view: mmap.mmap | None = None

    def clear(self) -> None:
        self.path.unlink(missing_ok=True)
        with open(self.path, "w+b") as file:
            file.truncate(self.STAMPS + STREAMS * self.STAMPS_OF_STREAM * 8)
            self.view = mmap.mmap(file.fileno(), 0)

    def command(self, routine: str, rate_bps: float = RATE_BPS) -> list[str]:
        return [str(self.program), str(self.path), routine, str(rate_bps)]

    def sent(self) -> int:
        assert self.view
        return sum(struct.unpack_from(f"{STREAMS}Q", self.view, self.SENT))

    def stop(self, sender: Group) -> None:
        assert self.view
        struct.pack_into("I", self.view, self.STOP, 1)
        sender.wait()
        struct.pack_into("I", self.view, self.STOP, 0)

    def stamps(self, stream: int) -> tuple[int, ...]:
        """When each datagram arrived, in nanoseconds; 0 for one that did not."""
        assert self.view
        offset = self.STAMPS + stream * self.STAMPS_OF_STREAM * 8
        return struct.unpack_from(f"{self.STAMPS_OF_STREAM}q", self.view, offset)


def udp_count(name: str) -> int:
    lines = Path("/proc/net/snmp").read_text().splitlines()
    names, numbers = (line.split() for line in lines if line.startswith("Udp:"))
    return int(numbers[names.index(name)])


def wait_for_sockets(receiver: Group) -> None:
    deadline = time.monotonic() + 15
    while time.monotonic() < deadline:
        receiver.check()
        lines = Path("/proc/net/udp").read_text().splitlines()[1:]
        bound = {int(line.split()[1].split(":")[1], 16) for line in lines}
        if bound.issuperset(PORTS):
            return
        time.sleep(0.05)
    raise RuntimeError("not all sockets were opened")


def idle_s() -> float:
    """How long all processors have been idle, together."""
    ticks = Path("/proc/stat").read_text().split()[4]
    return int(ticks) / os.sysconf("SC_CLK_TCK")


def usage_during(group: Group, seconds: float) -> Values:
    """What the group takes in so many seconds."""
    group.check()
    group.check_library()
    before = time.monotonic(), group.cpu_ns(), group.switches(), idle_s()
    time.sleep(seconds)
    after = time.monotonic(), group.cpu_ns(), group.switches(), idle_s()
    group.check()
    elapsed = after[0] - before[0]
    return {
        "cpu us": (after[1] - before[1]) / 1000,
        "% of a core": (after[1] - before[1]) / elapsed / 1e7,
        "switches/s": (after[2] - before[2]) / elapsed,
        "% idle": (after[3] - before[3]) / elapsed / (os.cpu_count() or 1) * 100,
        "seconds": elapsed,
    }


def with_cost(usage: Values, datagrams: int) -> Values:
    if datagrams == 0:
        raise RuntimeError("nothing is sent")
    usage[COST] = usage.pop("cpu us") / datagrams
    usage["datagrams/s"] = datagrams / usage.pop("seconds")
    return usage
