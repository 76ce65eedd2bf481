"""The module as a library: found, loaded once, and its functions and runtime rows."""

from __future__ import annotations

import ctypes
import functools
import os
import threading
from typing import Any

from .errors import LibraryError
from .table import CHANNELS

_NAMES = ("libQXV_RTP.so.0", "libQXV_RTP.so")  # as installed, and as built for development
_u32 = ctypes.c_uint32
_ARGUMENTS: dict[str, list[Any]] = {
    "SetConfig": [_u32, _u32, ctypes.c_char_p],
    "SendStart": [_u32, _u32, _u32],
    "Send": [_u32, ctypes.c_char_p, _u32],
    "SendEnd": [_u32],
    "SendCancel": [_u32],
    "SetBitrate": [_u32, _u32],
    "ReceiveStart": [_u32],
    "Receive": [_u32, ctypes.c_void_p, _u32],
    "ReceiveEnd": [_u32],
    "ReceiveCancel": [_u32],
}


class Row(ctypes.Structure):
    """A channel's runtime row; it belongs to the process that started the channel."""

    _fields_ = [
        ("cancel", _u32),
        ("running", _u32),
        ("socket", ctypes.c_void_p),
        ("thread", ctypes.c_void_p),
        ("timer", ctypes.c_void_p),
        ("buffer", ctypes.c_void_p),
    ]


# Places of virtual functions in the tables of the module's classes; the two destructors come first.
_BUFFER_DATA_SIZE = 8
_BUFFER_FREE_SIZE = 9
_TIMER_BLOCKS = 5


def _call_virtual(instance: int | None, place: int, result: Any) -> int:
    if not instance:
        return 0
    functions = ctypes.cast(instance, ctypes.POINTER(ctypes.POINTER(ctypes.c_void_p))).contents
    return int(ctypes.CFUNCTYPE(result, ctypes.c_void_p)(functions[place] or 0)(instance))


def _open(names: tuple[str, ...]) -> ctypes.CDLL:
    for name in names[:-1]:
        try:
            return ctypes.CDLL(name)
        except OSError:
            pass
    return ctypes.CDLL(names[-1])


class Library:
    """The loaded module. `call("Send", ...)` calls QXV_RTP_Send with the handle in front."""

    def __init__(self, names: tuple[str, ...]) -> None:
        try:
            self._library = _open(names)
            self._library.QXV_RTP_Create.restype = ctypes.c_void_p
            self._library.QXV_RTP_Destroy.argtypes = [ctypes.c_void_p]
            for function, arguments in _ARGUMENTS.items():
                entry = getattr(self._library, "QXV_RTP_" + function)
                entry.argtypes = [ctypes.c_void_p, *arguments]
                entry.restype = _u32
            rows = ((Row * CHANNELS) * 2).in_dll(self._library, "g_ContextExt")
        except (OSError, AttributeError, ValueError) as error:
            raise LibraryError(
                f"the module cannot be loaded: {error}; QXV_RTP_LIBRARY tells where it is"
            ) from None
        self._rows = rows
        self.process = os.getpid()
        self._in_use: set[tuple[int, int]] = set()  # channels, as (direction, number)
        self._lock = threading.Lock()  # guards _in_use
        self.handle: int | None = self._library.QXV_RTP_Create(0)
        if not self.handle:
            raise LibraryError("the module could not set up its shared table in /tmp")
        self.destroy()  # it stays valid, and is the same for every Create

    def create(self) -> None:
        self._library.QXV_RTP_Create(0)

    def destroy(self) -> None:
        self._library.QXV_RTP_Destroy(self.handle)

    def reserve(self, direction: int, channel: int) -> bool:
        """A second start would end the channel under its first user."""
        with self._lock:
            free = (direction, channel) not in self._in_use
            self._in_use.add((direction, channel))
            return free

    def release(self, direction: int, channel: int) -> None:
        with self._lock:
            self._in_use.discard((direction, channel))

    def call(self, function: str, *arguments: Any) -> bool:
        return bool(getattr(self._library, "QXV_RTP_" + function)(self.handle, *arguments))

    def row(self, direction: int, channel: int) -> Row:
        row: Row = self._rows[direction][channel]
        return row


def buffered(row: Row) -> int:
    """Bytes in the channel's buffer."""
    return _call_virtual(row.buffer, _BUFFER_DATA_SIZE, _u32)


def room(row: Row) -> int:
    """Bytes that the channel's buffer has room for."""
    return _call_virtual(row.buffer, _BUFFER_FREE_SIZE, _u32)


def datagrams(row: Row) -> int:
    """Datagrams sent since the pace was set, or received."""
    return _call_virtual(row.timer, _TIMER_BLOCKS, ctypes.c_uint64)


@functools.lru_cache(maxsize=None)
def load() -> Library:
    """Loads the module with the first call. That replaces the shared table, so that who watches
    it sees this process's channels from then on."""
    chosen = os.environ.get("QXV_RTP_LIBRARY")
    return Library((chosen,) if chosen else _NAMES)
