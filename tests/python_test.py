# The Python package, against the real module: python_test.py SAMPLE
import os, pathlib, signal, sys, unittest
from qxv_rtp import *

SAMPLE = pathlib.Path(sys.argv.pop(1)).read_bytes()


class PythonTest(unittest.TestCase):
    def test_a_file_that_is_no_table_is_refused_and_importing_makes_none(self):
        self.assertRaises(TableError, Table.read)
        for make in ("mkfifo {0}", "ln -s /proc/self/exe {0}", "touch {0}"):
            os.system(make.format(PATH))
            self.assertRaises(TableError, Table.read)
            os.unlink(PATH)

    def test_what_is_written_is_read_with_the_last_datagram_filled_up(self):
        parity = b"".join(SAMPLE[at : at + 188] + bytes(16) for at in range(0, 188 * 20, 188))
        for url, data, fill in (("rtp://127.0.0.1:5000", SAMPLE, 0), ("udp://[::1]:5001", SAMPLE[:188], 188 * 13),
                                ("rtp://239.1.1.1:5002?localaddr=127.0.0.1", parity, 204)):
            with self.subTest(url), Module() as module, module.receive(0, url) as source:
                with module.send(15, url, 20_000_000) as channel:
                    channel.write(data)
                    self.assertEqual([(r.direction, r.channel) for r in Table.read().started()], [(0, 15), (1, 0)])
                self.assertEqual(source.read(len(data), 5), data)
                self.assertEqual(source.read(fill, 5)[:4], b"\x47\x1f\xff\x10"[:fill])
                self.assertEqual(source.read_some(1, 0.1), b"")
                source.cancel()
                self.assertEqual(list(source), [])
            self.assertEqual(Table.read().started(), [])

    def test_a_signal_breaks_a_wait_and_ends_the_channels(self):
        signal.signal(signal.SIGALRM, signal.default_int_handler)
        for start in (lambda module: module.receive(0, "udp://:5003"), lambda module: module.send(0, "udp://127.0.0.1:5004", 1000)):
            with self.assertRaises(KeyboardInterrupt), Module() as module, start(module) as channel:
                signal.setitimer(signal.ITIMER_REAL, 0.3)
                channel.write(SAMPLE) if hasattr(channel, "write") else channel.read(1)
            self.assertTrue(channel.closed)

    def test_what_cannot_work_says_so(self):
        for url in ("http://127.0.0.1:1", "udp://localhost:1", "udp://127.0.0.1", "udp://:70000", "udp://[::1]:1?localaddr=127.0.0.1", "rtp://239.1.1.1:1?ttl=256", "udp://:1?x=1"):
            self.assertRaises(ConfigError, Config.for_receiving, url)
        with Module() as module, module.receive(0, "udp://:5005"):
            for number, url in ((0, "udp://:5006"), (16, "udp://:5006"), (1, "udp://192.0.2.1:5006"), (1, "udp://[fe80::1%none]:5006")):
                self.assertRaises(ChannelError, module.receive, number, url, open_timeout=1.5)
            with self.assertRaises(ChannelCancelled), module.send(0, "udp://127.0.0.1:5007", 10_000_000) as channel:
                channel.write(bytes(1 << 20), 5)
            with self.assertRaises(ChannelError), module.send(0, "udp://127.0.0.1:5007", 10_000_000) as channel:
                channel.write(b"garbage" * 500)


unittest.main()
