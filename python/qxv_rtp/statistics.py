"""What has happened to a channel, and how it stands."""

from __future__ import annotations

import struct
from dataclasses import dataclass

_LAYOUT = struct.Struct("=8I4Q")
REQUEST = _LAYOUT.pack(_LAYOUT.size, *(11 * [0]))  # what the module is to fill in


@dataclass(frozen=True)
class Statistics:
    """The state and the counters of one channel. The counters begin at 0 with every start. Each
    number is exact, but they are not all of the same instant.

    started            started and not ended
    cancelled          cancelled, or stopped because the stream lost its sync byte; also while the
                       channel is not started
    socket_open        the channel has a socket
    buffered_bytes     in the module's buffer: to be sent, or received and not yet taken from there
    free_bytes         for which that buffer has room
    sockets_opened     above 1 after configure(), or after sending has failed
    mode_changes       receive: changes between raw and RTP
    datagrams          sent, or received and stored in the buffer
    payload_bytes      in those datagrams, without RTP headers
    datagrams_dropped  receive: lost because the buffer had no room for them
    send_failures      send: datagrams lost because the system refused them
    """

    started: bool
    cancelled: bool
    socket_open: bool
    buffered_bytes: int
    free_bytes: int
    sockets_opened: int
    mode_changes: int
    datagrams: int
    payload_bytes: int
    datagrams_dropped: int
    send_failures: int

    @classmethod
    def unpack(cls, data: bytes) -> Statistics:
        """From the bytes that the module has filled."""
        _, started, cancelled, socket_open, *numbers = _LAYOUT.unpack(data)
        return cls(started != 0, cancelled != 0, socket_open != 0, *numbers)
