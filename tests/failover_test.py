#!/usr/bin/env python3
"""failover_test.py TOOL SAMPLE [TEST...]: a relay of inputs that die, fall ill and come back."""
import json, socket, struct, sys, threading, time, unittest
from tool_test import ToolTest, again_if_it_stood_still, read, subprocess, write


def packet(source, count):  # of 750 kbit/s: a clock, two PIDs, and the source's number at the end
    pid, counter = (0x101, count // 7) if count % 7 == 6 else (0x100, count // 7 * 6 + count % 7)
    head = struct.pack(">BHB", 0x47, pid, 0x10 | (counter + source) % 16)
    if count % 21 == 0:  # 42 ms
        ticks = 10**9 * source + count * 54000
        pcr = ticks // 300 << 15 | 0x7E00 | ticks % 300
        head = head[:3] + bytes([head[3] | 0x20, 7, 16]) + pcr.to_bytes(6, "big")
    return head.ljust(188, b"%d" % source)


class Source(threading.Thread):
    def __init__(self, test, source, port, noise=False):
        super().__init__(daemon=True)
        self.source, self.to, self.on, self.damaged = source, ("127.0.0.1", port), True, False
        self.noise = noise
        self.start()
        test.addCleanup(self.end)

    def run(self):
        at, begun = socket.socket(socket.AF_INET, socket.SOCK_DGRAM), time.monotonic()
        cut = 88 * (self.source == 2)  # its datagrams begin and end within packets
        for number in range(0, 700000, 7):
            time.sleep(max(0, begun + number * 0.002 - time.monotonic()))
            if not self.on:
                return
            if not self.damaged or number % 5:
                data = b"".join(packet(self.source, number + i) for i in range(8))
                at.sendto(b"noise" if self.noise else data[cut:cut + 1316], self.to)

    def end(self):
        self.on = False
        self.join()


class Output(threading.Thread):
    """Which source came out after which, how long nothing came in between, and where a counter
    jumps that is not announced."""

    def __init__(self, test, port):
        super().__init__(daemon=True)
        self.at = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.at.bind(("127.0.0.1", port))
        self.sources, self.gaps, self.jumps, self.packets = [], [], [], 0
        self.start()
        test.addCleanup(self.end)

    def run(self):
        counters, last = {}, time.monotonic()
        while data := self.at.recv(2048):
            now, (before, last) = time.monotonic(), (last, time.monotonic())
            for one in struct.iter_unpack("188s", data):
                pid, counter = int.from_bytes(one[0][1:3], "big") & 0x1FFF, one[0][3] & 15
                self.packets += 1
                if pid == 0x1FFF:
                    continue
                if one[0][3] & 0x20 and one[0][4] and one[0][5] & 0x80:
                    counters.pop(pid, None)
                if not one[0][3] & 0x10:
                    continue
                if counters.get(pid, counter) != counter:
                    self.jumps.append((pid, self.packets, one[0][:6]))
                counters[pid] = (counter + 1) % 16
                if self.sources[-1:] != [one[0][-1] - 48]:
                    self.sources.append(one[0][-1] - 48)
                    self.gaps.append(now - before)

    def end(self):
        socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"", self.at.getsockname())
        self.join()
        self.at.close()


class Failover(ToolTest):
    def await_source(self, source):
        self.await_(lambda: self.output.sources[-1:] == [source], lambda: len(read("said")))

    @again_if_it_stood_still
    def test_what_is_preferred_is_on_air_and_decoders_are_told_of_each_cut(self):
        self.output = Output(self, 7302)
        write("slate.ts", b"".join(packet(9, count) for count in range(700)))
        relay = self.tool("relay udp://127.0.0.1:7300 --or udp://127.0.0.1:7301 "
                          "--or udp://127.0.0.1:7303 --or slate.ts udp://127.0.0.1:7302 "
                          "--return 1 --statistics 2> said")
        self.await_source(9)
        second = Source(self, 2, 7301)
        self.await_source(2)
        first = Source(self, 1, 7300)
        self.await_source(1)
        first.end()
        self.await_source(2)
        write("slate.new", b"".join(packet(8, count) for count in range(700)))
        subprocess.run(["mv", "slate.new", "slate.ts"], check=True)
        second.end()
        self.await_source(8)
        seen = self.output.packets  # two rounds more
        self.await_(lambda: self.output.packets > seen + 1500, lambda: self.output.packets)
        write("slate.ts", b"")
        write("slate.new", b"".join(packet(7, count) for count in range(700)))
        subprocess.run(["mv", "slate.new", "slate.ts"], check=True)
        self.await_source(7)
        Source(self, 1, 7300)
        Source(self, 2, 7301, noise=True)
        self.await_source(1)
        self.assertEqual(self.end(relay), 0)
        self.assertEqual(self.output.sources, [9, 2, 1, 2, 8, 7, 1])
        self.assertEqual(self.output.jumps, [])
        told = json.loads(read("said").splitlines()[-1])
        self.assertEqual([(each["state"], each["bytes"] > 0) for each in told["inputs"]], [
            ("on air", True), ("faulty", True), ("no signal", False), ("standby", True)])
        self.assertEqual(told["switches"], 5)
        self.assertRegex(read("said"), rb"7301: skipped \d+ bytes \(\d+ gaps\) that are not TS")
        self.assertAlmostEqual(told["outputs"][0]["datagrams"], self.output.packets / 7, delta=50)
        self.assertLess(max(self.output.gaps[1:]), 3)  # 0.3, where nothing else is running
        a, b = "udp://127.0.0.1:7300", "udp://127.0.0.1:7301"
        self.assert_said(f"slate.ts is on air: nothing has come from {a}\n",
                         f"{b} is on air instead of slate.ts\n",
                         f"{b} is on air: {a} has no signal\n",
                         f"slate.ts is on air: {b} has no signal\n")

    @again_if_it_stood_still
    def test_one_that_is_damaged_is_left_and_with_return_never_not_returned_to(self):
        self.output = Output(self, 7312)
        write("config", b'[[relay]]\nfrom = "udp://127.0.0.1:7310"\nor = "udp://127.0.0.1:7311"\n'
              b'return = "never"\nto = "udp://127.0.0.1:7312"\n')
        relay = self.tool("relay -c config --statistics 2> said")
        sources = [Source(self, 1 + i, 7310 + i) for i in (0, 1)]
        for now in 0, 1, 0:  # from one to the other
            self.await_source(1 + now)
            sources[1 - now].damaged = False
            seen = self.output.packets
            self.await_(lambda: self.output.packets > seen + 1000, lambda: self.output.packets)
            sources[now].damaged = True
        self.await_source(2)
        self.assertEqual(self.end(relay), 0)
        self.assertEqual(self.output.sources, [1, 2, 1, 2])
        told = json.loads(read("said").splitlines()[-1])
        self.assertGreater(min(each["continuity_errors"] for each in told["inputs"]), 9)
        self.assertGreater(min(each["bitrate_bps"] for each in told["inputs"]), 200_000)
        self.assertEqual([each["state"] for each in told["inputs"]], ["faulty", "on air"])
        self.assert_said("udp://127.0.0.1:7311 is on air: udp://127.0.0.1:7310 is faulty "
                         "(continuity_count_error)\n")
        # As many relays as outputs may have four alternatives each.
        write("config", "".join(
            f"[[relay]]\nfrom = 'udp://:{i}'\nto = 'udp://127.0.0.1:{i + 9}'\n"
            f"or = {[f'udp://:{i + j}' for j in range(1, 5)]}\n"
            for i in range(1000, 1160, 10)).encode())
        self.assertEqual(self.tool("config check config").wait(40), 0)

    def test_a_file_that_cannot_be_played_is_told(self):
        subprocess.run(["mkfifo", "fifo"], check=True)
        write("empty", b"")
        write("timeless", packet(9, 1) * 2000)
        for slate, told in (("none", "cannot read 'none': No such file"), ("empty", "'empty' is "),
                            ("fifo", "'fifo' is no regular file"),
                            ("timeless", "'timeless' has no PCRs that tell its rate")):
            relay = self.tool("relay udp://127.0.0.1:7320 udp://127.0.0.1:7322 --or "
                              f"{slate} 2> said")
            self.await_(lambda: told.encode() in read("said"))
            self.assertEqual(self.end(relay), 0)
            self.assertNotIn(b"on air", read("said"))
        self.output = Output(self, 7322)
        relay = self.tool("relay udp://127.0.0.1:7320 udp://127.0.0.1:7322 --or timeless -b 1M "
                          "2> said")
        self.await_source(9)
        self.assertEqual(self.end(relay), 0)


unittest.main(argv=sys.argv[:1] + sys.argv[3:], warnings="ignore")
