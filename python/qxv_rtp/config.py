"""The configuration of a channel: addresses, port and what goes with them."""

from __future__ import annotations

import ipaddress
import struct
import urllib.parse
from dataclasses import dataclass

from .errors import Error

_LAYOUT = struct.Struct("=256s256s4B2H")
SIZE = _LAYOUT.size  # bytes
DEFAULT_TTL = 16
_FORM = "udp://HOST:PORT or rtp://HOST:PORT"


class ConfigError(Error, ValueError):
    """A URL or configuration that cannot be used."""


def _address(text: str) -> ipaddress.IPv4Address | ipaddress.IPv6Address:
    try:
        return ipaddress.ip_address(text)
    except ValueError:
        raise ConfigError(
            f"'{text}' is no numeric address; names are not looked up"
        ) from None


def _text(field: bytes) -> str:
    return field.split(b"\0", 1)[0].decode("ascii", "backslashreplace")


@dataclass(frozen=True)
class Config:
    """One channel's configuration, before the module has checked it.

    remote          where to send to, or the group to receive from; numeric
    port            1 to 65535: destination of a send channel, own port of a receive one
    local           address of the interface, or to listen on; "" is any
    rtp             send: put an RTP header in front; receive: the form expected at first
    ttl             of datagrams sent to groups (hop limit in IPv6), 0 to 255
    all_interfaces  receive: join the group on every interface that is up, not on local's
    """

    remote: str
    port: int
    local: str = ""
    rtp: bool = True
    ttl: int = DEFAULT_TTL
    all_interfaces: bool = False

    @property
    def multicast(self) -> bool:
        """Is `remote` a group? False for what is no address."""
        try:
            return _address(self.remote).is_multicast
        except ConfigError:
            return False

    @classmethod
    def for_sending(cls, url: str) -> Config:
        """The configuration to send to udp://HOST:PORT (raw) or rtp://HOST:PORT, with
        ?ttl=0..255 and &localaddr=ADDRESS if need be."""
        config = cls._from_url(url)
        if _address(config.remote).is_unspecified:
            raise ConfigError(f"'{url}': a destination is needed to send to")
        return config

    @classmethod
    def for_receiving(cls, url: str) -> Config:
        """The configuration to receive from a group, or on a local address ("udp://@:5000" is
        any). Raw and RTP are told apart as they arrive, whatever the scheme."""
        config = cls._from_url(url)
        if config.multicast or _address(config.remote).is_unspecified:
            return cls(config.remote, config.port, config.local)
        if config.local:
            raise ConfigError(
                f"'{url}': localaddr goes with a group; here the host is the address "
                "to listen on"
            )
        return cls("::" if ":" in config.remote else "0.0.0.0", config.port, config.remote)

    @classmethod
    def _from_url(cls, url: str) -> Config:
        try:
            parts = urllib.parse.urlsplit(url)
            port = parts.port
            query = urllib.parse.parse_qsl(parts.query, True, True)
        except ValueError as error:
            raise ConfigError(f"'{url}': {error}; write {_FORM}") from None
        if parts.scheme not in ("udp", "rtp") or not port or parts.path not in ("", "/"):
            raise ConfigError(f"'{url}' is no stream URL; write {_FORM}")
        if parts.username:
            raise ConfigError(f"'{url}': there are no source filters; nothing stands before '@'")
        options = dict(query)
        ttl = options.pop("ttl", str(DEFAULT_TTL))
        local = options.pop("localaddr", "").strip("[]")
        if options:
            raise ConfigError(f"'{url}': unknown option '{next(iter(options))}'; accepted are "
                              "ttl=0..255 and localaddr=ADDRESS")
        if not ttl.isdecimal():
            raise ConfigError(f"'{url}': ttl '{ttl}' is not 0 to 255")
        config = cls(parts.hostname or "0.0.0.0", port, local, parts.scheme == "rtp", int(ttl))
        config.pack()
        return config

    def pack(self) -> bytes:
        """The 520 bytes that the module takes. Raises ConfigError."""
        remote = _address(self.remote)
        local = self.local or ("::" if remote.version == 6 else "0.0.0.0")
        if _address(local).version != remote.version:
            raise ConfigError(f"{local} and {self.remote} are not of one address family")
        if not 1 <= self.port <= 65535 or not 0 <= self.ttl <= 255:
            raise ConfigError(f"port {self.port} is not 1 to 65535, or ttl {self.ttl} not 0 to 255")
        return _LAYOUT.pack(local.encode(), self.remote.encode(), remote.is_multicast, self.rtp,
                            self.ttl, self.all_interfaces, self.port, 0)

    @classmethod
    def unpack(cls, data: bytes) -> Config:
        """From 520 bytes, which are not believed: what is no text is shown escaped."""
        local, remote, _, rtp, ttl, option, port, _ = _LAYOUT.unpack(data)
        return cls(_text(remote), port, _text(local), rtp == 1, ttl, option == 1)
