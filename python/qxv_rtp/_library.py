"""The module as a library: found, loaded once, and its functions."""

from __future__ import annotations

import ctypes
import functools
import os
import threading
from typing import Any

from .config import SIZE as CONFIG_SIZE
from .config import Config
from .errors import LibraryError
from .statistics import REQUEST, Statistics

_NAMES = ("libQXV_RTP.so.0", "libQXV_RTP.so")  # as installed, and as built for development
_u32 = ctypes.c_uint32
_ARGUMENTS: dict[str, list[Any]] = {
    "GetConfig": [_u32, _u32, ctypes.c_char_p],
    "SetConfig": [_u32, _u32, ctypes.c_char_p],
    "GetStatistics": [_u32, _u32, ctypes.c_char_p],
    "GetBitrate": [_u32, ctypes.c_void_p],
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
        except (OSError, AttributeError) as error:
            raise LibraryError(
                f"the module cannot be loaded: {error}; QXV_RTP_LIBRARY tells where it is"
            ) from None
        self.process = os.getpid()
        # Channels, as (direction, number), and whose they are. Its methods are single steps for
        # threads and signal handlers alike.
        self._in_use: dict[tuple[int, int], object] = {}
        self.handle: int | None = self._library.QXV_RTP_Create(0)
        if not self.handle:
            raise LibraryError("the module could not set up its shared table in /tmp")
        self.destroy()  # it stays valid, and is the same for every Create

    def create(self) -> None:
        self._library.QXV_RTP_Create(0)

    def destroy(self) -> None:
        self._library.QXV_RTP_Destroy(self.handle)

    def reserve(self, direction: int, channel: int, owner: object) -> bool:
        """A second start would end the channel under its first user."""
        return self._in_use.setdefault((direction, channel), owner) is owner

    def release(self, direction: int, channel: int, owner: object) -> None:
        if self._in_use.get((direction, channel)) is owner:
            self._in_use.pop((direction, channel))

    def call(self, function: str, *arguments: Any) -> bool:
        return bool(getattr(self._library, "QXV_RTP_" + function)(self.handle, *arguments))

    def config(self, direction: int, channel: int) -> Config:
        data = ctypes.create_string_buffer(CONFIG_SIZE)
        self.call("GetConfig", direction, channel, data)
        return Config.unpack(data.raw)

    def statistics(self, direction: int, channel: int) -> Statistics:
        data = ctypes.create_string_buffer(REQUEST, len(REQUEST))
        self.call("GetStatistics", direction, channel, data)
        return Statistics.unpack(data.raw)

    def bitrate(self, channel: int) -> int:
        bitrate = _u32()
        self.call("GetBitrate", channel, ctypes.byref(bitrate))
        return bitrate.value


_loading = threading.RLock()


@functools.lru_cache(maxsize=None)
def _load() -> Library:
    chosen = os.environ.get("QXV_RTP_LIBRARY")
    return Library((chosen,) if chosen else _NAMES)


def load() -> Library:
    """Loads the module with the first call. That replaces the shared table, so that who watches
    it sees this process's channels from then on."""
    with _loading:
        return _load()
