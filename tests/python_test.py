# The Python package, against the real module: python_test.py SAMPLE
import array, ctypes, os, pathlib, signal, sys, time, unittest
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
            with self.subTest(url), Module() as module, module.receive(0, url, open_timeout=60) as source:
                with module.send(15, url, 20_000_000, open_timeout=60) as channel:
                    channel.write(data)
                    self.assertEqual([(r.direction, r.channel) for r in Table.read().started()], [(0, 15), (1, 0)])
                self.assertEqual(source.read(len(data), 60), data)
                self.assertEqual(source.read(fill, 60)[:4], b"\x47\x1f\xff\x10"[:fill])
                self.assertEqual(source.read_some(1, 0.1), b"")
                size = len(data) + fill
                for statistics in channel.statistics(), source.statistics():
                    self.assertEqual((statistics.payload_bytes, statistics.buffered_bytes), (size, 0))
                    self.assertEqual(statistics.datagrams, size // (7 * (204 if data is parity else 188)))
                self.assertEqual((channel.statistics().started, statistics.started, statistics.cancelled), (False, True, False))
                source.cancel()
                self.assertEqual(list(source), [])
            self.assertEqual(Table.read().started(), [])

    def test_drops_and_changes_of_the_mode_are_counted(self):
        data = SAMPLE[: 7 * 188] * 4000
        with Module() as module, module.receive(0, "udp://127.0.0.1:5008") as source:
            with module.send(0, "udp://127.0.0.1:5008", 200_000_000) as channel:
                channel.write(data)
            end = time.monotonic() + 5
            while source.statistics().datagrams + source.statistics().datagrams_dropped < 4000 and time.monotonic() < end:
                time.sleep(0.01)
            after = source.statistics()
            self.assertEqual(after.datagrams + after.datagrams_dropped, channel.statistics().datagrams)
            self.assertEqual((after.datagrams_dropped > 0, after.mode_changes, after.sockets_opened, source.config.rtp), (True, 1, 1, False))
            self.assertEqual(source.read(source.available), data[: after.payload_bytes])
            self.assertGreater(source.statistics().free_bytes, after.free_bytes + after.buffered_bytes - 1)

    def test_a_write_that_a_signal_handler_cuts_in_on_does_not_reach_the_next_owner(self):
        with Module() as module:
            old, new = module.send(0, "udp://127.0.0.1:5009", 1_000_000), []

            def replace(*_):
                old.close()
                self.assertRaises(ChannelCancelled, old.configure, Config("127.0.0.1", 5011))
                try:
                    new.append(module.send(0, "udp://127.0.0.1:5010", 1000))
                except ChannelError as error:
                    self.assertIn("in use", str(error))

            def interrupted(function, *arguments, call=old._library.call):
                if function == "Send" and arguments[1].startswith(b"\x47\x1f"):
                    signal.raise_signal(signal.SIGALRM)
                return call(function, *arguments)

            signal.signal(signal.SIGALRM, replace)
            old._library.call = interrupted
            self.addCleanup(old._library.__dict__.pop, "call", None)
            self.assertRaises(ChannelCancelled, old.write, b"\x47\x1f\xff\x10".ljust(188, b"\xff") * 1000)
            del old._library.call
            new = new or [module.send(0, "udp://127.0.0.1:5010", 1000)]
            old.cancel()
            self.assertEqual((new[0].buffered, new[0].cancelled, new[0].config.port, old.statistics().started), (0, False, 5010, False))
            old.close()
            self.assertRaises(ChannelError, module.send, 0, "udp://127.0.0.1:5011", 1000)
        self.assertRaises(ChannelError, module.send, 0, "udp://127.0.0.1:5009", 1_000_000)

    def test_what_starts_while_its_module_is_closed_is_ended(self):
        module = Module()
        closing = type("Closing", (), {"closed": property(lambda _: module.close() or True), "close": lambda _: None})
        module._channels.append(closing())  # it is asked when the new channel joins the list
        self.assertRaises(ChannelError, module.send, 0, "udp://127.0.0.1:5009", 1000)
        self.assertRaises(ChannelError, module.receive, 0, "udp://:5009")
        self.assertEqual(Table.read().started(), [])

    def test_any_buffer_is_written_and_floats_are_refused(self):
        data = SAMPLE[: 188 * 70]
        with Module() as module, module.receive(0, "udp://127.0.0.1:5015") as source, module.send(0, "udp://127.0.0.1:5015", 20_000_000) as channel:
            twice = bytes(byte for byte in data for _ in (0, 1))
            for buffer in (bytearray(data), array.array("H", data), (ctypes.c_uint16 * (len(data) // 2)).from_buffer_copy(data),
                           memoryview(data).cast("B", (70, 188)), memoryview(twice)[::2], b"", array.array("d")):
                channel.write(buffer)
                if len(memoryview(buffer)):
                    self.assertEqual(source.read(len(data), 10), data)
            self.assertRaises(TypeError, channel.write, "text")
            for call in (lambda: source.read(1.0), lambda: source.read_some(1.0), lambda: channel.set_bitrate(1e6), lambda: module.send(1.0, "udp://127.0.0.1:1", 1),
                         lambda: module.send(1, "udp://127.0.0.1:1", 1e6), lambda: channel.configure(Config("127.0.0.1", 5015.0))):
                self.assertRaises(TypeError, call)

    def test_a_signal_handler_may_close_and_one_that_raises_ends_the_wait(self):
        for _ in range(20):
            module = Module()
            channel = module.send(0, "udp://127.0.0.1:5012", 1_000_000_000)
            signal.signal(signal.SIGALRM, lambda *_: module.close())
            signal.setitimer(signal.ITIMER_REAL, 0.005)
            with self.assertRaises(ChannelCancelled):
                while True:
                    channel.write(SAMPLE[: 7 * 188])
        signal.signal(signal.SIGALRM, signal.default_int_handler)
        for receive in True, False:
            with self.assertRaises(KeyboardInterrupt), Module() as module, \
                    module.receive(0, "udp://:5003") if receive else module.send(0, "udp://127.0.0.1:5004", 1000) as channel:
                signal.setitimer(signal.ITIMER_REAL, 0.3)
                channel.read(1) if receive else channel.write(SAMPLE)
            self.assertTrue(channel.closed)

    def test_a_source_and_a_mark_reach_the_module_in_the_remote_address(self):
        for url, make, remote in (("rtp://232.1.1.1:5?source=192.0.2.9&dscp=46", Config.for_receiving, b"192.0.2.9@232.1.1.1"),
                                  ("rtp://[ff3e::1]:5?source=[2001:db8::9]", Config.for_receiving, b"2001:db8::9@ff3e::1"),
                                  ("udp://192.0.2.1:5?dscp=46", Config.for_sending, b"192.0.2.1?dscp=46"),
                                  ("udp://239.1.1.1:5?dscp=0", Config.for_sending, b"239.1.1.1")):
            config = make(url)
            self.assertEqual(config.pack()[256:512].rstrip(b"\0"), remote)
            shown = Config.unpack(config.pack())
            self.assertEqual((shown.remote, shown.source, shown.dscp), (config.remote, config.source, config.dscp))

    def test_what_cannot_work_says_so(self):
        for url in ("http://127.0.0.1:1", "udp://localhost:1", "udp://127.0.0.1", "udp://:70000", "udp://[::1]:1?localaddr=127.0.0.1", "rtp://239.1.1.1:1?ttl=256", "udp://:1?x=1",
                    "udp://127.0.0.1:1?source=127.0.0.2", "udp://239.1.1.1:1?source=239.1.1.2", "udp://239.1.1.1:1?source=::1", "udp://239.1.1.1:1?source=0.0.0.0",
                    "udp://127.0.0.2@239.1.1.1:1", "udp://239.1.1.1:1?dscp=64", "udp://239.1.1.1:1?dscp=af41"):
            self.assertRaises(ConfigError, Config.for_receiving, url)
        with Module() as module, module.receive(0, "udp://:5005") as source:
            for read, size in (source.read, -1), (source.read_some, -1), (source.read_some, 0):
                self.assertRaises(ValueError, read, size)
            for number, url in ((0, "udp://:5006"), (16, "udp://:5006"), (1, "udp://192.0.2.1:5006"), (1, "udp://[fe80::1%none]:5006")):
                self.assertRaises(ChannelError, module.receive, number, url, open_timeout=1.5)
            with self.assertRaises(ChannelCancelled), module.send(0, "udp://127.0.0.1:5007", 10_000_000) as channel:
                channel.write(bytes(1 << 20), 5)
            with self.assertRaises(ChannelError), module.send(0, "udp://127.0.0.1:5007", 10_000_000) as channel:
                channel.write(b"garbage" * 500)


unittest.main()
