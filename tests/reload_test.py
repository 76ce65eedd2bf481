#!/usr/bin/env python3
"""reload_test.py TOOL SAMPLE [TEST...]: changes while streams are on air."""
import json, os, re, signal, sys, time, unittest

from tool_test import (SAMPLE, SAMPLE_PATH, SANITIZED, TOOL, Arrivals, ToolTest, is_bound, output,
                       again_if_it_stood_still, read, stream, write)


class Reload(ToolTest):
    # Writes the file in one go, as careful editors do.
    def configure(self, text, name="live.toml"):
        write(name + ".new", text.encode())
        os.replace(name + ".new", name)

    def said(self, text):
        return read("said").decode().count(text)

    def reload(self, process, expected):
        before = self.said(expected)
        process.send_signal(signal.SIGHUP)
        self.await_(lambda: self.said(expected) > before)

    def channels(self, process):
        host = json.loads(output(f"'{TOOL}' status --json --pid {process.pid}"))["hosts"][0]
        return {channel["port"]: channel["channel"] for channel in host["channels"]
                if channel["running"]}

    def listen(self, port):
        arrivals = Arrivals(port)
        self.addCleanup(arrivals.end)
        return arrivals

    @staticmethod
    def sent(port, options=""):
        return (f"[[send]]\ninput = '{SAMPLE_PATH}'\nurl = 'rtp://127.0.0.1:{port}'\nloop = true\n"
                f"bitrate = 2_000_000\n{options}\n")

    @again_if_it_stood_still
    def test_what_is_the_same_is_not_touched_and_what_is_wrong_changes_nothing(self):
        kept, other = self.listen(7201), self.listen(7202)
        self.configure(self.sent(7200) + self.sent(7201) + self.sent(7202))
        sender = self.tool("send -c live.toml 2> said")
        self.await_(lambda: len(kept.times) > 400, lambda: len(kept.times))
        self.assertEqual(self.channels(sender), {7200: 0, 7201: 1, 7202: 2})
        # The first goes, the third changes, two are new, and the order is another.
        first = len(kept.times)
        self.configure(self.sent(7203) + self.sent(7202, "start = 1") + self.sent(7201)
                       + self.sent(7204))
        self.reload(sender, "again: 3 streams started, 2 ended, 1 unchanged\n")
        self.await_(lambda: set(self.channels(sender).values()) == {0, 1, 2, 3})
        self.assertEqual(self.channels(sender)[7201], 1)
        known = self.channels(sender)
        for text, complaint in ((self.sent(7205) + "bitrat = 1", "live.toml:7:1: send[0].bitrat: "),
                                (self.sent(7205) * 2, "send[0].url sends there already"),
                                ("".join(self.sent(7300 + i) for i in range(17)), "only 16 "),
                                ("[[receive]]", ""), ("not = toml = at all", "live.toml:1:"),
                                (None, "cannot read 'live.toml': No such file")):
            self.configure(text) if text else os.remove("live.toml")
            self.reload(sender, "nothing has changed\n")
            self.assert_said(complaint)
        self.assertEqual(self.channels(sender), known)
        # All sixteen numbers are used, given back and used again.
        for base in 7210, 7230:
            self.configure(self.sent(7201) + "".join(self.sent(base + i) for i in range(15)))
            self.reload(sender, "15 streams started")
            self.await_(lambda: sorted(self.channels(sender).values()) == list(range(16)))
        self.assertEqual(kept.breaks(), [])
        self.assertLess(kept.longest_gap(first), 0.3)
        self.assertEqual(len(other.breaks()), 1)
        self.assertEqual(self.end(sender), 0)

    def test_no_file_holds_up_the_end(self):
        got = self.listen(7290)
        self.configure(self.sent(7290))
        sender = self.tool("send -c live.toml 2> said")
        self.await_(lambda: got.times)
        os.remove("live.toml")
        os.mkfifo("live.toml")
        self.reload(sender, "nothing has changed\n")
        self.assert_said("cannot read 'live.toml': it is no regular file")
        self.assertEqual(self.tool("send -c live.toml 2> said2").wait(40), 1)
        os.remove("live.toml")
        self.configure(self.sent(7291))
        self.reload(sender, "again: 1 stream started, 1 ended")
        os.remove("live.toml")
        os.mkfifo("live.toml")
        sender.send_signal(signal.SIGHUP)
        self.assertEqual(self.end(sender), 0)

    @unittest.skipIf(SANITIZED, "a sanitizer takes memory of its own")
    @again_if_it_stood_still
    def test_fifty_reloads_leave_nothing_behind(self):
        kept, other = self.listen(7240), self.listen(7241)
        unreachable = self.sent(7246).replace("127.0.0.1", "198.51.100.9")
        texts = [self.sent(7240) + self.sent(7241, "start = 1"),
                 self.sent(7240) + self.sent(7241) + unreachable]
        self.configure(texts[0])
        sender = self.tool("send -c live.toml 2> said")
        self.await_(lambda: len(kept.times) > 200, lambda: len(kept.times))

        def reload(times):
            for i in range(times):
                self.configure(texts[(i + 1) % 2])
                self.reload(sender, "configuration read again")
            # What began anew has all that it needs once it sends.
            begun = len(other.times)
            self.await_(lambda: len(other.times) > begun + 200, lambda: len(other.times))

        def figures():
            status = read(f"/proc/{sender.pid}/status").decode()
            threads, resident = (int(re.search(rf"{name}:\s+(\d+)", status)[1])
                                 for name in ("Threads", "VmRSS"))
            return len(os.listdir(f"/proc/{sender.pid}/fd")), threads, resident
        reload(10)
        before = figures()
        reload(40)
        # Memory is given back every few seconds.
        most = before[0], before[1], before[2] + 1024
        self.await_(lambda: all(now <= then for now, then in zip(figures(), most)))
        self.assertEqual(kept.breaks(), [])
        self.assertEqual(self.end(sender), 0)

    def test_recordings_go_on_whole_while_others_end_and_begin(self):
        entry = "[[receive]]\nurl = 'udp://127.0.0.1:{0}'\noutput = '{1}.ts'\n"
        self.configure(entry.format(7250, "kept") + entry.format(7251, "ends"))
        receiver = self.tool("receive -c live.toml 2> said --statistics")
        self.await_(lambda: is_bound(7250) and is_bound(7251))
        senders = [self.tool(f"send '{SAMPLE_PATH}' udp://127.0.0.1:{port} {options}")
                   for port, options in ((7250, "-b 1M"), (7251, "--loop"))]
        self.await_size("kept.ts", 100_000)
        self.await_size("ends.ts", 1316)
        self.configure(entry.format(7250, "kept") + entry.format(7251, "next"))
        self.reload(receiver, "again: 1 stream started, 1 ended, 1 unchanged\n")
        ended = len(read("ends.ts"))
        self.assert_said('"output":"ends.ts"', f'"bytes":{ended},')
        self.await_size("next.ts", 1316)
        self.assertEqual((len(read("ends.ts")), ended % 188), (ended, 0))
        self.configure(entry.format(7250, "kept") + "rotate = 1")
        self.reload(receiver, "nothing has changed\n")
        self.configure(entry.format(7250, "kept"))
        self.reload(receiver, "again: 0 streams started, 1 ended, 1 unchanged\n")
        self.assertNotIn(b"0100007F:1C53 00000000:", read("/proc/net/udp"))  # 7251
        self.assertEqual(senders[0].wait(40), 0)
        self.await_size("kept.ts", len(SAMPLE))
        self.assertTrue(read("kept.ts").startswith(SAMPLE))
        self.configure(entry.format(7252, "kept"))  # its file is free again
        self.reload(receiver, "again: 1 stream started, 1 ended, 0 unchanged\n")
        self.await_(lambda: is_bound(7252))
        self.end(senders[1])
        self.assertEqual(self.end(receiver), 1)
        self.assert_said("nothing came from udp://127.0.0.1:7252")

    @again_if_it_stood_still
    def test_relays_and_monitors_are_changed_as_well(self):
        kept = self.listen(7261)
        relayed = ("[[relay]]\nfrom = 'udp://127.0.0.1:7260'\nto = ['rtp://127.0.0.1:7261']\n"
                   "cbr = 2_000_000\n")
        watched = "[[monitor]]\nurl = 'udp://127.0.0.1:{}'\n"
        second = "[[relay]]\nfrom = 'udp://127.0.0.1:7262'\nto = 'udp://127.0.0.1:{}'\n"
        self.configure(relayed + second.format(7263))
        self.configure(watched.format(7261).replace("127.0.0.1", "239.1.1.9"), "watch.toml")
        relay = self.tool("relay -c live.toml 2> said")
        monitor = self.start(f"'{TOOL}' monitor -c watch.toml --json -i 0.2 > lines 2> heard")
        sender = self.tool(f"send --loop '{SAMPLE_PATH}' udp://127.0.0.1:7260")
        self.await_(lambda: len(kept.times) > 200, lambda: len(kept.times))
        for port, ended in (7264, 1), (7265, 1):
            self.configure(second.format(port) + relayed)
            self.reload(relay, f"again: 1 stream started, {ended} ended, 1 unchanged\n")
            self.await_(lambda: port in self.channels(relay))
        self.configure(watched.format(7265), "watch.toml")
        monitor.send_signal(signal.SIGHUP)
        self.await_(lambda: b"again: 1 stream started, 1 ended" in read("heard"))
        self.await_(lambda: b'"url":"udp://127.0.0.1:7265"' in read("lines"))
        self.assertFalse(b"239.1.1.9" in read("lines").splitlines()[-1])
        self.assertEqual(kept.breaks(), [])
        self.assertEqual([self.end(process) for process in (monitor, relay, sender)], [0, 0, 0])

    # What is appended goes on at the stream's pace, and a pause is not made up for; the file is
    # emptied, and another takes its name.
    @again_if_it_stood_still
    def test_a_growing_file_is_followed_without_bursts(self):
        data = stream(6, lambda _: 2e6)[0]
        part = len(data) // 188 // 3 * 188
        waits = 300 * 188  # behind the last PCR that was read
        write("growing.ts", data[:part])
        got = self.listen(7280)
        sender = self.tool("send --follow growing.ts rtp://127.0.0.1:7280 2> said")
        plain = self.receive(7281, "udp://127.0.0.1:7281 - > copy")
        copier = self.tool("send -f growing.ts udp://127.0.0.1:7281")
        self.await_(lambda: len(got.times) > 150, lambda: len(got.times))
        time.sleep(1.5)
        with open("growing.ts", "ab") as file:
            for at in range(part, len(data), 50 * 188):
                file.write(data[at:at + 50 * 188])
                file.flush()
                time.sleep(0.04)
        self.await_size("copy", len(data) - waits)
        self.assertTrue(data.startswith(read("copy")))
        write("growing.ts", data[:part])  # shorter, from its beginning
        self.await_size("copy", len(data) + part - 2 * waits)
        write("new.ts", data)
        os.replace("new.ts", "growing.ts")
        self.await_size("copy", len(data) * 2 + part - 3 * waits)
        # As with a pipe that pauses, numbers may begin anew; none is lost.
        self.assertEqual([b for _, b in got.breaks() if b != 0], [])
        self.assertEqual([self.end(process) for process in (sender, copier, plain)], [0, 0, 0])
        # No tenth of a second has more than half a second's.
        second = 2e6 / 8 / 1316
        most = max(sum(1 for at in got.times if begin <= at < begin + 0.1) for begin in got.times)
        self.assertLess(most, second / 2)

    def test_without_a_file_the_signal_ends_the_command_as_ever(self):
        sent = self.listen(7270)
        sender = self.tool(f"send --loop '{SAMPLE_PATH}' udp://127.0.0.1:7270")
        self.await_(lambda: sent.times)
        self.assertEqual(self.end(sender, signal.SIGHUP), -signal.SIGHUP)


unittest.main(argv=sys.argv[:1] + sys.argv[3:], warnings="ignore")
