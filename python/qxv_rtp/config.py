"""The configuration of a channel: addresses, port and what goes with them."""

from __future__ import annotations

import ipaddress
import operator
import re
import struct
import urllib.parse
from dataclasses import dataclass

from .errors import Error

_LAYOUT = struct.Struct("=256s256s4B2H")
SIZE = _LAYOUT.size  # bytes
DEFAULT_TTL = 16
_FORM = "udp://HOST:PORT or rtp://HOST:PORT"
_OPTIONS = "ttl=0..255, localaddr=ADDRESS, source=ADDRESS and dscp=0..63"
_REMOTE = re.compile(r"(?:([^@]*)@)?(.*?)(?:\?dscp=([0-9]{1,2}))?", re.DOTALL)


class ConfigError(Error, ValueError):
    """A URL or configuration that cannot be used."""


def _address(text: str) -> ipaddress.IPv4Address | ipaddress.IPv6Address:
    try:
        return ipaddress.ip_address(text)
    except ValueError:
        raise ConfigError(
            f"'{text}' is no numeric address; names are not looked up"
        ) from None


def _number(url: str, name: str, text: str) -> int:
    if not text.isdecimal():
        raise ConfigError(f"'{url}': {name} '{text}' is no number; accepted are {_OPTIONS}")
    return int(text)


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
    source          receive from a group: the only sender that is received (RFC 4607), numeric;
                    "" is any. A send channel ignores it.
    dscp            send: the mark for routers (RFC 2474) in every datagram, 0 to 63
    """

    remote: str
    port: int
    local: str = ""
    rtp: bool = True
    ttl: int = DEFAULT_TTL
    all_interfaces: bool = False
    source: str = ""
    dscp: int = 0

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
        ?ttl=0..255, &dscp=0..63 and &localaddr=ADDRESS if need be."""
        config = cls._from_url(url)
        if _address(config.remote).is_unspecified:
            raise ConfigError(f"'{url}': a destination is needed to send to")
        return config

    @classmethod
    def for_receiving(cls, url: str) -> Config:
        """The configuration to receive from a group, with ?source=ADDRESS if only that sender
        is wanted, or on a local address ("udp://@:5000" is any). Raw and RTP are told apart as
        they arrive, whatever the scheme."""
        config = cls._from_url(url)
        if config.multicast or _address(config.remote).is_unspecified:
            return cls(config.remote, config.port, config.local, source=config.source)
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
            raise ConfigError(f"'{url}': nothing stands before '@'; write the address of a "
                              "group's sender as source=ADDRESS")
        options = dict(query)
        ttl = _number(url, "ttl", options.pop("ttl", str(DEFAULT_TTL)))
        dscp = _number(url, "dscp", options.pop("dscp", "0"))
        local = options.pop("localaddr", "").strip("[]")
        source = options.pop("source", "").strip("[]")
        if options:
            raise ConfigError(f"'{url}': unknown option '{next(iter(options))}'; accepted are "
                              + _OPTIONS)
        config = cls(parts.hostname or "0.0.0.0", port, local, parts.scheme == "rtp", ttl,
                     source=source, dscp=dscp)
        config.pack()
        return config

    def pack(self) -> bytes:
        """The 520 bytes that the module takes. Raises ConfigError."""
        remote = _address(self.remote)
        local = self.local or ("::" if remote.version == 6 else "0.0.0.0")
        if _address(local).version != remote.version:
            raise ConfigError(f"{local} and {self.remote} are not of one address family")
        for name, value, least, most in (("port", self.port, 1, 65535), ("ttl", self.ttl, 0, 255),
                                         ("dscp", self.dscp, 0, 63)):
            if not least <= operator.index(value) <= most:
                raise ConfigError(f"{name} {value} is not {least} to {most}")
        text = self.remote
        if self.source:
            source = _address(self.source)
            if (not remote.is_multicast or source.version != remote.version or "%" in self.source
                    or source.is_multicast or source.is_unspecified):
                raise ConfigError(f"{self.source} cannot be the sender of {self.remote}: that must "
                                  "be a group, and the sender one address of the same family")
            text = f"{self.source}@{text}"
        if self.dscp:
            text += f"?dscp={self.dscp}"
        return _LAYOUT.pack(local.encode(), text.encode(), remote.is_multicast, self.rtp,
                            self.ttl, self.all_interfaces, self.port, 0)

    @classmethod
    def unpack(cls, data: bytes) -> Config:
        """From 520 bytes, which are not believed: what is no text is shown escaped."""
        local, remote, _, rtp, ttl, option, port, _ = _LAYOUT.unpack(data)
        parts = _REMOTE.fullmatch(_text(remote))
        assert parts  # it matches any text
        source, host, dscp = parts.groups()
        return cls(host, port, _text(local), rtp == 1, ttl, option == 1, source or "",
                   int(dscp or 0))
