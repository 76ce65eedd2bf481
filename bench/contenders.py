"""The programs that are compared, ours among them: each is a command line, or one per channel."""

import os
import shutil
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

from measure import Bench, Commands, Values
from stream import PAYLOAD, Load

BARE, DRAIN, TOOL = "bare loop", "bare 1 ms drain", "qxvrtp"
FEED, BLOCKING = "host feeds every 40 ms", "host, 16 blocking readers"
POLL_1, POLL_10 = "host reads every 1 ms", "host reads every 10 ms"
MULTICAT, GSTREAMER, FFMPEG = "multicat", "GStreamer", "ffmpeg"
PEERS = {MULTICAT: "multicat", GSTREAMER: "gst-launch-1.0", FFMPEG: "ffmpeg"}
RECEIVE_BUFFER = 8 << 20


@dataclass
class Contender:
    name: str
    load: Load
    commands: Commands
    build: str = ""  # where several are compared
    rounds: list[Values] = field(default_factory=list)

    def __str__(self) -> str:
        return f"{self.name} [{self.build}]" if self.build else self.name


class Contenders:
    """Ours come once for each build folder; the first one's bare loops are used."""

    def __init__(self, bench: Bench, builds: list[Path], file: Path, peers: list[str]) -> None:
        self.bench, self.builds, self.file = bench, builds, file
        self.peers = [peer for peer in peers if shutil.which(PEERS[peer])]

    def ours(self, name: str, load: Load, program: str, *words: object) -> list[Contender]:
        rest = [str(word) for word in words]
        return [
            Contender(name, load, [[f"{build}/bin/{program}", *rest]],
                      os.path.relpath(build) if len(self.builds) > 1 else "")
            for build in self.builds
        ]

    def host(self, name: str, mode: str, number: int, load: Load) -> list[Contender]:
        return self.ours(name, load, "plain_host", mode, number, load.channels, load.form)

    def tool(self, command: str, load: Load, pair: Callable[[str], list[str]]) -> list[Contender]:
        scheme = "udp" if load.form == "raw" else "rtp"
        urls = [pair(f"{scheme}://127.0.0.1:{port}") for port in load.ports]
        return self.ours(TOOL, load, "qxvrtp", command, *(word for two in urls for word in two))

    def bare(self, routine: str, load: Load, name: str = BARE) -> Contender:
        return Contender(name, load, [self.bench.routine(routine, load)])

    def peer(self, name: str, load: Load, line: Callable[[int], str]) -> list[Contender]:
        """A process for each channel; of GStreamer, which can do that, one for all."""
        if name not in self.peers:
            return []
        commands = [line(port).split() for port in load.ports]
        if name == GSTREAMER:
            words = (word for command in commands for word in command)
            commands = [["gst-launch-1.0", "-q", *words]]
        return [Contender(name, load, commands)]

    def senders(self, load: Load) -> list[Contender]:
        file, raw = self.file, load.form == "raw"
        pack = "" if raw else "video/mpegts,packetsize=188,systemstream=true ! rtpmp2tpay ! "
        found = [
            self.bare("bursts", load),
            *self.host(FEED, "send", load.rate_bps, load),
            *self.tool("send", load, lambda url: [str(file), url]),
            *self.peer(MULTICAT, load, lambda port:
                       f"multicat {'-U' if raw else ''} {file} 127.0.0.1:{port}"),
            *self.peer(GSTREAMER, load, lambda port:
                       f"filesrc location={file} blocksize={PAYLOAD} ! "
                       f"identity datarate={load.rate_bps // 8} ! {pack}"
                       f"udpsink host=127.0.0.1 port={port} sync=true"),
        ]
        if raw:  # under RTP ffmpeg would have to remake the stream
            # It reads the file at once: its queue must hold all of it.
            queue = file.stat().st_size // 188 * 2
            found += self.peer(FFMPEG, load, lambda port:
                               f"ffmpeg -nostdin -f data -raw_packet_size {PAYLOAD} -i {file} "
                               f"-map 0 -c copy -f data udp://127.0.0.1:{port}?pkt_size={PAYLOAD}"
                               f"&bitrate={load.rate_bps}&burst_bits={PAYLOAD * 8}"
                               f"&fifo_size={queue}")
        return found

    def receivers(self, load: Load) -> list[Contender]:
        form = "-u -U" if load.form == "raw" else "-U"
        return [
            self.bare("epoll", load),
            self.bare("drain", load, DRAIN),
            *self.host(BLOCKING, "blocking", 64, load),
            *self.host(POLL_1, "poll", 1, load),
            *self.host(POLL_10, "poll", 10, load),
            *self.tool("receive", load, lambda url: [url, "/dev/null"]),
            *self.peer(MULTICAT, load, lambda port:
                       f"multicat {form} @127.0.0.1:{port} /dev/null"),
            *self.peer(GSTREAMER, load, lambda port:
                       f"udpsrc address=127.0.0.1 port={port} buffer-size={RECEIVE_BUFFER} "
                       "! fakesink sync=false"),
            *self.peer(FFMPEG, load, lambda port:
                       f"ffmpeg -nostdin -f data -i udp://127.0.0.1:{port}?localaddr=127.0.0.1"
                       f"&buffer_size={RECEIVE_BUFFER} -map 0 -c copy -f data -y /dev/null"),
        ]
