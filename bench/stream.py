"""The streams that the bench sends and receives, and the file that programs send."""

import struct
from dataclasses import dataclass
from pathlib import Path

PORT = 5000  # of the first channel, on 127.0.0.1
PAYLOAD = 7 * 188


@dataclass(frozen=True)
class Load:
    """So many channels of that rate, which counts packets only, as "raw" or "rtp"."""

    channels: int = 16
    rate_bps: int = 8_000_000
    form: str = "rtp"

    @property
    def period_ns(self) -> float:
        return PAYLOAD * 8 * 1e9 / self.rate_bps

    @property
    def ports(self) -> range:
        return range(PORT, PORT + self.channels)


def write_stream(file: Path, load: Load, seconds: float) -> None:
    """One stream with PCRs of exactly that rate, and for multicat when each datagram is due.

    As in Packets.h, each datagram has its number at the end of its first packet.
    """
    due = []
    with file.open("wb") as out:
        for number in range(int(seconds * 1e9 / load.period_ns)):
            ticks = number * PAYLOAD * 8 * 27_000_000 // load.rate_bps
            due.append(ticks)
            for packet in range(7):
                counter = (number * 7 + packet) & 15
                if packet == 0 and number % 20 == 0:
                    base, extension = divmod(ticks, 300)
                    pcr = struct.pack(">Q", base << 15 | 0x7E00 | extension)[2:]
                    data = struct.pack("4B2B", 0x47, 1, 0, 0x30 | counter, 7, 0x10) + pcr
                else:
                    data = struct.pack("4B", 0x47, 1, 0, 0x10 | counter)
                data = data.ljust(180, b"\xff")
                out.write(data + (b"\xff" * 8 if packet else struct.pack("<Q", number)))
    file.with_suffix(".aux").write_bytes(struct.pack(f">{len(due)}Q", *due))
