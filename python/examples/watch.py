#!/usr/bin/env python3
"""watch.py [SECONDS]: shows the channels of the host that loaded the module last, without
disturbing it."""

import sys
import time

from qxv_rtp import SEND, Table, TableError


def show(table: Table) -> None:
    for record in table.started():
        config = record.config
        address = config.remote if record.direction == SEND or config.multicast else config.local
        print(f"{'send' if record.direction == SEND else 'receive':8}{record.channel:2}  "
              f"{'rtp' if config.rtp else 'raw'}  {address} port {config.port}  "
              f"{record.bitrate_actual / 1e6:.3f} Mbit/s"
              f"{'  no socket' if record.reopen else ''}")


def main() -> int:
    end = time.monotonic() + (float(sys.argv[1]) if len(sys.argv) > 1 else float("inf"))
    while time.monotonic() < end:
        print(time.strftime("%H:%M:%S"))
        try:
            show(Table.read())
        except TableError as error:
            print(error)
        time.sleep(1)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        pass
