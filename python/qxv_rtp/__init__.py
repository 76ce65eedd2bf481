"""MPEG transport streams over UDP and RTP, sent and received by libQXV_RTP.so.

    with Module() as module:
        with module.send(0, "rtp://239.1.1.1:5000?ttl=4", bitrate=5_000_000) as channel:
            channel.write(data)

Importing the package does not load the module; the first Module() does, and with that replaces
the shared table, so that who watches it sees this process from then on. Table.read() never does.
The library is the one that QXV_RTP_LIBRARY names, else the one that is installed.
Bitrates are in bits per second of transport stream, sizes in bytes, times in seconds. In a child of
os.fork() nothing of this may be used.
"""

from .channels import Module, ReceiveChannel, SendChannel
from .config import Config, ConfigError
from .errors import ChannelCancelled, ChannelError, Error, LibraryError, TableError
from .statistics import Statistics
from .table import CHANNELS, PATH, RECEIVE, SEND, Record, Table

__all__ = [
    "CHANNELS",
    "PATH",
    "RECEIVE",
    "SEND",
    "ChannelCancelled",
    "ChannelError",
    "Config",
    "ConfigError",
    "Error",
    "LibraryError",
    "Module",
    "ReceiveChannel",
    "Record",
    "SendChannel",
    "Statistics",
    "Table",
    "TableError",
]
