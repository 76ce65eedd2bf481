#!/usr/bin/env python3
"""loopback.py FILE [URL]: sends a transport stream to this machine itself and compares."""

import sys
import threading

from qxv_rtp import Module, ReceiveChannel


def collect(channel: ReceiveChannel, received: bytearray) -> None:
    for piece in channel:
        received += piece


def main() -> int:
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    url = sys.argv[2] if len(sys.argv) == 3 else "rtp://127.0.0.1:5000"
    with open(sys.argv[1], "rb") as file:
        data = file.read()
    received = bytearray()
    with Module() as module, module.receive(0, url) as source:
        reader = threading.Thread(target=collect, args=(source, received))
        reader.start()
        try:
            with module.send(0, url, bitrate=10_000_000) as destination:
                destination.write(data)
            threading.Event().wait(0.2)  # for the last datagrams to be read
        finally:
            source.cancel()
            reader.join()
    equal = received[: len(data)] == data
    print(f"{len(data)} bytes sent, {len(received)} received:", "equal" if equal else "DIFFERENT")
    return 0 if equal else 1


if __name__ == "__main__":
    sys.exit(main())
