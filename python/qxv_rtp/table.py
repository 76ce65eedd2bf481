"""The shared table: configuration, state and measured bitrate of every channel.

Reading it does not load the module, so it disturbs nobody: use it to watch another process.
"""

from __future__ import annotations

import os
import stat
import struct
from dataclasses import dataclass

from . import config as _config
from .config import Config
from .errors import TableError

PATH = "/tmp/__QXV_RTP_SHARE_MEMORY__"
CHANNELS = 16  # in each direction
SEND = 0
RECEIVE = 1

_HEADER = struct.Struct("=4I")
_STATE = struct.Struct("=8I")
RECORD_SIZE = _STATE.size + _config.SIZE
SIZE = _HEADER.size + 2 * CHANNELS * RECORD_SIZE  # 17680 bytes


@dataclass(frozen=True)
class Record:
    """One channel, as it was when it was read.

    direction         SEND or RECEIVE
    channel           0 to 15
    bitrate           requested, bits per second of transport stream; 0 on receive channels
    bitrate_actual    measured in the last second or so, bits per second
    buffer_size       capacity of the channel's buffer, bytes; 0 while the channel is ended
    reopen            the socket is still to be made, or to be made again
    rtp_switch_count  receive: datagrams since the last one that fitted config.rtp
    """

    direction: int
    channel: int
    bitrate: int
    bitrate_actual: int
    buffer_size: int
    reopen: bool
    rtp_switch_count: int
    config: Config

    @property
    def started(self) -> bool:
        """The channel has been started and not ended; its process may have died since."""
        return self.buffer_size != 0

    @classmethod
    def unpack(cls, data: bytes, direction: int, channel: int) -> Record:
        """From 552 bytes. Their place decides which channel it is, not the numbers in them."""
        _, _, _, bitrate, actual, size, reopen, switches = _STATE.unpack_from(data)
        return cls(direction, channel, bitrate, actual, size, reopen != 0, switches,
                   Config.unpack(data[_STATE.size : RECORD_SIZE]))


def offset(direction: int, channel: int) -> int:
    """Where the channel's record begins in the table, in bytes."""
    return _HEADER.size + (direction * CHANNELS + channel) * RECORD_SIZE


@dataclass(frozen=True)
class Table:
    """All channels of the process that loaded the module last. A record that is being
    changed while it is read may be half the old and half the new one."""

    handles: int  # open in that process; informational
    send: tuple[Record, ...]
    receive: tuple[Record, ...]

    @classmethod
    def read(cls, path: str = PATH) -> Table:
        """Reads the file as it is now; each load of the module by any process makes a new one.
        Raises TableError. The file lies where anybody may put one: a symbolic link, a pipe, a
        short file are refused."""
        try:
            file = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
        except FileNotFoundError:
            raise TableError(f"there is no {path}: no process has loaded the module") from None
        except OSError as error:
            raise TableError(f"cannot read {path}: {error.strerror}") from None
        try:
            if not stat.S_ISREG(os.fstat(file).st_mode):
                raise TableError(f"{path} is not a regular file")
            data = os.pread(file, SIZE, 0)
        finally:
            os.close(file)
        if len(data) < SIZE:
            raise TableError(f"{path} is shorter than a table: {len(data)} of {SIZE} bytes")
        _, handles, _, _ = _HEADER.unpack_from(data)
        send, receive = (
            tuple(Record.unpack(data[offset(direction, channel) :], direction, channel)
                for channel in range(CHANNELS))
            for direction in (SEND, RECEIVE)
        )
        return cls(handles, send, receive)

    def started(self) -> list[Record]:
        """The channels that have been started and not ended, send channels first."""
        return [record for record in self.send + self.receive if record.started]
