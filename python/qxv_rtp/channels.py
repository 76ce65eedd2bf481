"""The module and its channels.

Nothing here waits inside the module: a write or read asks what the buffer has room for or holds,
moves that much, and sleeps a millisecond where that is nothing. So Ctrl-C gets through, and every
wait can have a limit.
"""

from __future__ import annotations

import atexit
import ctypes
import operator
import os
import threading
import time
from collections.abc import Callable, Iterator
from types import TracebackType
from typing import TYPE_CHECKING, TypeVar

from . import _library
from .config import Config
from .errors import ChannelCancelled, ChannelError
from .statistics import Statistics
from .table import CHANNELS, RECEIVE, SEND

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer

OPEN_TIMEOUT = 3.0  # seconds; the module tries once a second to open a receive channel's socket
_POLL = 0.001  # seconds
_PATIENCE = 3.0  # seconds without a datagram that leaves
_UNIT = 256  # bytes, of a send channel's buffer size
_LARGEST_BUFFER = 4 << 20  # bytes
_PACKETS = 7  # in a datagram
_DETECTION = 2048  # bytes by which a send channel tells the packet size
_Result = TypeVar("_Result")
_Self = TypeVar("_Self", bound="_Channel")


def _valid_bitrate(bitrate: int) -> int:
    bitrate = operator.index(bitrate)
    if not 1 <= bitrate <= 0xFFFFFFFF:
        raise ValueError(f"bitrate {bitrate} is not 1 to 4294967295 bits per second")
    return bitrate


class _Deadline:
    def __init__(self, seconds: float | None) -> None:
        self._end = None if seconds is None else time.monotonic() + seconds

    def wait(self) -> bool:
        """Sleeps for a moment; False when the time is up."""
        if self._end is not None and time.monotonic() >= self._end:
            return False
        time.sleep(_POLL)
        return True


class _Channel:
    """What send and receive channels have in common. Threads: one writes, or reads; any may
    cancel, close, and look, and so may signal handlers."""

    _direction = SEND
    _name = "Send"
    _hint = "is there a route to it?"

    def __init__(self, library: _library.Library, number: int, config: Config, *start: int,
                 open_timeout: float | None) -> None:
        number = operator.index(number)
        if not 0 <= number < CHANNELS:
            raise ChannelError(f"there is no channel {number}; channels are 0 to {CHANNELS - 1}")
        self.number = number
        self._library = library
        # Held for each step, none of which waits, so that the channel does not end meanwhile, and
        # its number is not another object's. Reentrant, since a signal handler may cut in.
        self._lock = threading.RLock()
        self._depth = 0  # steps under way in the thread that has the lock
        if not library.reserve(self._direction, number, self):
            raise ChannelError(f"{self._name.lower()} channel {number} is in use")
        self._closed = False
        self._stopped = False  # by cancel()
        self._final: Statistics | None = None  # when the channel has ended
        try:
            self.configure(config)
            if not library.call(self._name + "Start", number, *start):
                raise ChannelError(f"{self._name.lower()} channel {number} cannot be started")
            deadline = _Deadline(open_timeout)
            while not self.statistics().socket_open:
                if not deadline.wait():
                    raise ChannelError(f"no socket could be opened for {config}; {self._hint}")
        except BaseException:
            self.close()
            raise

    def _step(self, action: Callable[[], _Result]) -> _Result:
        """What a signal handler closes in the midst of a step ends when the step is over."""
        with self._lock:
            self._depth += 1
            try:
                return action()
            finally:
                self._depth -= 1
                if self._closed:
                    self._end()

    def configure(self, config: Config) -> None:
        """Stores another configuration. A running channel gets a new socket: a send channel with
        its next datagram, a receive channel within a second."""
        data = ctypes.create_string_buffer(config.pack())

        def store() -> bool:
            self._check_open()
            return self._library.call("SetConfig", self._direction, self.number, data)

        if not self._step(store):
            raise ChannelError(
                f"the module refuses {config}; does a zone behind '%' name an interface?"
            )

    @property
    def config(self) -> Config:
        """The configuration as it is now: a receive channel's `rtp` is what has been detected."""
        def load() -> Config:
            self._check_open()
            return self._library.config(self._direction, self.number)

        return self._step(load)

    def statistics(self) -> Statistics:
        """State and counters as they are now, or as they were when the channel had ended."""
        return self._step(
            lambda: self._final or self._library.statistics(self._direction, self.number))

    @property
    def closed(self) -> bool:
        return self._closed

    @property
    def buffered(self) -> int:
        """Bytes in the channel's buffer: to be sent, or received and not yet read."""
        return self.statistics().buffered_bytes

    @property
    def cancelled(self) -> bool:
        """Was it cancelled, or did it stop because the stream lost its sync byte?"""
        return self._closed or self.statistics().cancelled

    def cancel(self) -> None:
        """Makes a write or read that waits in another thread raise ChannelCancelled. The channel
        must still be closed."""
        def stop() -> None:
            if not self._closed:
                self._stopped = True
                self._library.call(self._name + "Cancel", self.number)

        if not self._closed:  # asked first, since another thread's close() may take a second
            self._step(stop)

    def _check_open(self) -> None:
        if self._closed:
            raise ChannelCancelled(f"{self._name.lower()} channel {self.number} is closed")

    def _check(self) -> None:
        self._check_open()
        if self.cancelled:
            raise ChannelCancelled(f"{self._name.lower()} channel {self.number} is cancelled")

    def close(self) -> None:
        """Ends the channel at once; what its buffer holds is dropped. May be called again."""
        if os.getpid() != self._library.process:
            return  # a child of fork() has the object, but the channel is its parent's
        with self._lock:
            self._closed = True
            self._end()

    def _end(self) -> None:
        if self._depth:  # the step under way does it
            return
        self._depth += 1
        try:
            if self._final is None:
                self._library.call(self._name + "End", self.number)
                self._final = self._library.statistics(self._direction, self.number)
            self._library.release(self._direction, self.number, self)
        finally:
            self._depth -= 1

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()


class SendChannel(_Channel):
    """A started send channel. As a context manager it finishes, when all went well, what was
    written, and ends at once on an exception, or when cancel() was called. Raises ChannelCancelled
    when the stream has lost its sync byte."""

    def __init__(self, library: _library.Library, number: int, config: Config, bitrate: int,
                 buffer_size: int | None, open_timeout: float | None) -> None:
        self._bitrate = _valid_bitrate(bitrate)
        if buffer_size is None:  # a quarter of a second
            buffer_size = min(max(self._bitrate // 32, 65536), _LARGEST_BUFFER)
        buffer_size = operator.index(buffer_size)
        if not _DETECTION + _UNIT <= buffer_size <= _LARGEST_BUFFER:
            raise ValueError(f"buffer_size {buffer_size} is not 2304 to {_LARGEST_BUFFER} bytes")
        self._written = 0  # bytes
        self._head = b""  # what tells the packet size
        super().__init__(library, number, config, self._bitrate, -(-buffer_size // _UNIT),
                         open_timeout=open_timeout)

    def write(self, data: ReadableBuffer, timeout: float | None = None) -> None:
        """Hands all of `data`, the bytes of a transport stream in any object that has a buffer, to
        the channel; waits while the channel's own buffer is full. TimeoutError when that took more than `timeout` seconds: a part was taken."""
        view = memoryview(data)
        if view.format != "B" or not view.c_contiguous:
            view = memoryview(view.tobytes())
        view = view.cast("B")
        deadline = _Deadline(timeout)
        done = 0

        def store() -> int:
            self._check()
            count = min(self.statistics().free_bytes, len(view) - done)
            piece = view[done : done + count].tobytes()
            # It refuses when the channel has stopped: the next check tells.
            if not count or not self._library.call("Send", self.number, piece, count):
                return 0
            self._head += piece[: 3 * 188 - len(self._head)]
            self._written += count
            return count

        while done < len(view):
            count = self._step(store)
            done += count
            if not count and not deadline.wait():
                raise TimeoutError(f"{done} of {len(view)} bytes were taken in {timeout} seconds")

    def finish(self) -> None:
        """Fills the last datagram up with null packets and waits until all has left. Raises
        ChannelError when datagrams cannot be sent."""
        self._check()
        few = self._written <= 2 * 188 and self._written % 188 == 0  # too short to tell
        size = 188 if few or self._head[188:189] == self._head[376:377] == b"\x47" else 204
        if self._written and self._written % size == 0:
            packets = max(self._written // size, -(-_DETECTION // size))
            packets = -(-packets // _PACKETS) * _PACKETS
            null = b"\x47\x1f\xff\x10" + b"\xff" * 184 + bytes(size - 188)
            self.write(null * (packets - self._written // size))
        patience = _PATIENCE + _PACKETS * size * 8 / self._bitrate
        seen, since = self.buffered, time.monotonic()
        while seen >= _PACKETS * size and time.monotonic() - since < patience:
            self._check()
            time.sleep(_POLL)
            if self.buffered != seen:
                seen, since = self.buffered, time.monotonic()
        expected = self._written // (_PACKETS * size)
        deadline = _Deadline(1.0)  # the last one is counted a moment after it left the buffer
        while (missing := expected - self.statistics().datagrams) > 0:
            if not deadline.wait():
                raise ChannelError(f"{missing} of {expected} datagrams could not be sent; "
                                   "is there a route?")

    def set_bitrate(self, bitrate: int) -> None:
        """Changes the pace from now on, in bits per second."""
        bitrate = _valid_bitrate(bitrate)

        def store() -> None:
            self._check()
            self._library.call("SetBitrate", self.number, bitrate)
            self._bitrate = bitrate

        self._step(store)

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        try:
            if kind is None and not self._closed and not self._stopped:
                self.finish()
        finally:
            self.close()


class ReceiveChannel(_Channel):
    """A started receive channel. Iterating gives the stream in pieces as they come, until the
    channel is cancelled or closed."""

    _direction = RECEIVE
    _name = "Receive"
    _hint = "is the port in use, the address not this machine's, or no interface for the group?"

    def __init__(self, library: _library.Library, number: int, config: Config,
                 open_timeout: float | None) -> None:
        self._pending = bytearray()  # taken from the channel and not yet returned
        super().__init__(library, number, config, open_timeout=open_timeout)

    @property
    def available(self) -> int:
        """Bytes that can be read without waiting."""
        return len(self._pending) + self.buffered

    @property
    def bitrate(self) -> int:
        """Measured, in bits per second; refreshed once a second, 0 when closed."""
        return self._step(lambda: 0 if self._closed else self._library.bitrate(self.number))

    def _take(self, most: int) -> int:
        def load() -> int:
            self._check()
            count = min(self.buffered, most)
            data = bytearray(count)
            if not count or not self._library.call(
                    "Receive", self.number, (ctypes.c_char * count).from_buffer(data), count):
                return 0
            self._pending += data
            return count

        return self._step(load)

    def read(self, size: int, timeout: float | None = None) -> bytes:
        """Exactly `size` bytes. TimeoutError when they did not come in `timeout` seconds; what
        has come is then there for the next read. ValueError for a negative size: a stream has no
        end to read to."""
        size = operator.index(size)
        if size < 0:
            raise ValueError(f"{size} bytes cannot be read")
        deadline = _Deadline(timeout)
        while len(self._pending) < size:
            if not self._take(size - len(self._pending)) and not deadline.wait():
                raise TimeoutError(f"{len(self._pending)} of {size} bytes came in {timeout} seconds")
        data = bytes(self._pending[:size])
        del self._pending[:size]
        return data

    def read_some(self, most: int = 65536, timeout: float | None = None) -> bytes:
        """What is there, 1 to `most` bytes; waits for the first. b"" when the time is up.
        ValueError for less than one byte."""
        most = operator.index(most)
        if most < 1:
            raise ValueError(f"at most {most} bytes cannot be read")
        deadline = _Deadline(timeout)
        while not self._pending and not self._take(most):
            if not deadline.wait():
                return b""
        return self.read(min(most, len(self._pending)))

    def __iter__(self) -> Iterator[bytes]:
        while not self.cancelled:
            try:
                yield self.read_some()
            except ChannelCancelled:
                return


class Module:
    """The streaming module, loaded into this process with the first instance."""

    def __init__(self) -> None:
        self._library = _library.load()
        self._library.create()
        self._channels: list[_Channel] = []
        self._closed = False
        self._lock = threading.RLock()  # guards both; reentrant as a channel's
        # The module does not end its channels, and its threads must not outlive the interpreter.
        atexit.register(self.close)

    def send(self, number: int, target: str | Config, bitrate: int, *,
             buffer_size: int | None = None,
             open_timeout: float | None = OPEN_TIMEOUT) -> SendChannel:
        """Starts send channel `number`, 0 to 15.

        target        udp:// or rtp:// URL, or a Config
        bitrate       bits per second of transport stream, without headers
        buffer_size   bytes; a quarter of a second unless given
        open_timeout  seconds to wait for the socket; None: for ever
        """
        config = Config.for_sending(target) if isinstance(target, str) else target
        return self._open(lambda: SendChannel(self._library, number, config, bitrate, buffer_size,
                                              open_timeout))

    def receive(self, number: int, source: str | Config, *,
                open_timeout: float | None = OPEN_TIMEOUT) -> ReceiveChannel:
        """Starts receive channel `number`, 0 to 15, and waits until its socket is open, at most
        `open_timeout` seconds (None: for ever). `source` is a udp:// or rtp:// URL of a group or
        of a local address, or a Config."""
        config = Config.for_receiving(source) if isinstance(source, str) else source
        return self._open(lambda: ReceiveChannel(self._library, number, config, open_timeout))

    def _open(self, make: Callable[[], _Self]) -> _Self:
        if not self._closed:
            channel = make()
            with self._lock:
                self._channels = [one for one in self._channels if not one.closed] + [channel]
            if not self._closed:
                return channel
            channel.close()  # closed while the channel was waiting for its socket
        raise ChannelError("this Module is closed")

    def cancel(self) -> None:
        """Cancels this instance's channels; each must still be closed."""
        for channel in self._channels:
            if not channel.closed:
                channel.cancel()

    def close(self) -> None:
        """Ends this instance's channels and gives the handle back. May be called again."""
        if os.getpid() != self._library.process:
            return
        with self._lock:
            if self._closed:
                return
            self._closed = True
        for channel in self._channels:
            channel.close()
        self._library.destroy()
        atexit.unregister(self.close)

    def __enter__(self) -> Module:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()
