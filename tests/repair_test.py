#!/usr/bin/env python3
"""repair_test.py TOOL SAMPLE [TEST...]: streams that the network has damaged, and what the tool makes of
them. The windows are long, since a busy machine may hold datagrams up, too."""
import json, random, socket, subprocess, sys, time, unittest
from impairer import Disorder
from tool_test import (SAMPLE, SAMPLE_PATH, TOOL, ToolTest, again_if_it_stood_still, is_bound, output, read,
                       rtp, run, write)


def seeded(seed, late, double=0.0, end=260):  # behind which nothing is late
    chance = random.Random(seed)

    def order(number):
        behind = chance.randint(1, 5) if number < end and chance.random() < late else 0
        return 1 + (chance.random() < double), behind
    return order


class Repair(ToolTest):
    def impair(self, port, to, order):
        self.addCleanup(Disorder(port, to, order).end)

    def statistics(self):
        return json.loads(next(line for line in read("said").decode().splitlines()
                               if line.startswith("{")))

    def test_the_monitor_counts_what_the_network_has_done(self):
        self.impair(7206, 7208, lambda number: (1, 0) if number % 8 or not 16 <= number < 240 else
                    ((0, 0), (2, 0), (1, 3))[number // 8 % 3])
        monitor = self.tool("monitor rtp://127.0.0.1:7208 --json -i 0.5 > found")
        self.await_(lambda: is_bound(7208))
        self.send(f"'{SAMPLE_PATH}' rtp://127.0.0.1:7206 -b 4M")

        def found():
            lines = [json.loads(line)["rtp"] for line in read("found").split(b"\n")[:-1]]
            return [line[name] for line in lines[-1:] for name in
                    ("lost", "duplicates", "reordered", "reordered_furthest", "received")]
        self.await_(lambda: found()[:4] == [9, 9, 10, 2], found)
        self.assertEqual(self.end(monitor), 0)

    def test_a_recording_is_in_order_and_whole_whatever_the_network_does_to_the_order(self):
        self.impair(7200, 7202, seeded(1, double=0.1, late=0.2))
        url = "rtp://127.0.0.1:7202?reorder="
        receiver = self.receive(7202, f"'{url}1000' file -n 354004 --statistics 2> said")
        self.send(f"'{SAMPLE_PATH}' rtp://127.0.0.1:7200 -b 4M")
        self.assertEqual(receiver.wait(40), 0)
        self.assertTrue(read("file") == SAMPLE)
        repair = self.statistics()["repair"]
        self.assertEqual((repair["window_ms"], repair["lost"], repair["late"]), (1000, 0, 0))
        self.assertGreater(min(repair["reordered"], repair["duplicates"]), 10)
        # Without a window the module receives, as it comes.
        receiver = self.receive(7202, f"'{url}0' file --statistics -d 600 2> said")
        channels = json.loads(output(f"'{TOOL}' status --json --pid {receiver.pid}"))
        self.assertEqual(channels["hosts"][0]["channels"][0]["port"], 7202)
        self.send(f"'{SAMPLE_PATH}' rtp://127.0.0.1:7200 -b 4M")
        self.await_size("file", len(SAMPLE))
        self.assertEqual(self.end(receiver), 0)
        self.assertIsNone(self.statistics()["repair"])
        self.assertGreater(self.statistics()["continuity_errors"], 10)

    def test_what_is_lost_is_told_and_what_a_reader_leaves_for_later_is_not(self):
        whole = [rtp(number)[12:] for number in range(3000)]
        write("input", b"".join(whole))
        self.impair(7206, 7208, lambda number: (number % 100 != 50, 0))
        receiver = self.receive(7208, "rtp://127.0.0.1:7208?reorder=300 - --statistics 2> said",
                                stdout=subprocess.PIPE)
        self.send("input rtp://127.0.0.1:7206 -b 16M")
        expected = b"".join(data for number, data in enumerate(whole) if number % 100 != 50)
        self.assertTrue(receiver.stdout.read(len(expected)) == expected)
        self.assertEqual(self.end(receiver), 0)
        receiver.stdout.close()
        self.assertEqual(self.statistics()["repair"]["lost"], 30)
        self.assertEqual(self.statistics()["datagrams_dropped"], 0)

    # A relay sends the same datagrams to two outputs; what one way loses, the other one brings.
    @again_if_it_stood_still
    def test_two_paths_that_lose_and_stop_make_one_whole_stream(self):
        late = seeded(2, late=0.1, end=780)
        gone = [{*random.Random(3).sample(range(10, 260), 30), *range(269, 538)}]
        gone.append({number for number in range(50, 780, 97)} - gone[0])
        for i in 0, 1:
            self.impair(7210 + i, 7212 + i,
                        lambda number, lost=gone[i]: (0, 0) if number in lost else late(number))
        urls = ["rtp://127.0.0.1:7212?reorder=1000", "rtp://127.0.0.1:7213"]
        merger = self.tool(f"relay '{'+'.join(urls)}' udp://127.0.0.1:7216 2> said")
        receiver = self.receive(7216, "udp://127.0.0.1:7216 file -n 1062012")
        relay = self.tool("relay udp://127.0.0.1:7214 rtp://127.0.0.1:7210 rtp://127.0.0.1:7211 "
                          "2> /dev/null")
        self.await_(lambda: all(map(is_bound, (7212, 7213, 7214))))
        for told in "", f"nothing arrives from {urls[0]} any more; ", f"{urls[0]} brings the":
            self.send(f"'{SAMPLE_PATH}' udp://127.0.0.1:7214")
            self.await_(lambda: told.encode() in read("said"))
        self.assertEqual(receiver.wait(40), 0)
        self.assertTrue(read("file") == SAMPLE * 3)
        paths = [[807 - lost, lost, lost] for lost in map(len, gone)]

        def shown():
            stream, = json.loads(output(f"'{TOOL}' status --json --pid {merger.pid}"))[
                "processes"][0]["streams"]
            self.assertEqual((stream["kind"], stream["name"]), ("relay", "+".join(urls)))
            self.assertEqual(stream["outputs"][0]["url"], "udp://127.0.0.1:7216")
            source, = stream["inputs"]
            return source["repair"]["lost"] == 0 and [
                [path[figure] for figure in ("datagrams", "lost", "saved")]
                for path in source["paths"]] == paths
        self.await_(shown)
        self.assertEqual((self.end(relay), self.end(merger)), (0, 0))
        for url, lost in zip(urls, map(len, gone)):
            self.assert_said(f"{url} brought {807 - lost} datagrams, lost {lost}, of which others "
                             f"brought {lost}, ")
        self.assertEqual(read("said").count(b"\n"), 4, read("said"))

    def test_a_path_that_cannot_be_opened_holds_up_no_other_and_joins_later(self):
        urls = ["rtp://192.0.2.77:7220", "rtp://127.0.0.1:7221"]
        receiver = self.receive(7221, f"'{'+'.join(urls)}' file -n 354004 2> said")
        self.await_(lambda: f"no socket could be opened for {urls[0]}".encode() in read("said"))
        run("ip addr add 192.0.2.77/32 dev lo")
        self.addCleanup(run, "ip addr del 192.0.2.77/32 dev lo")
        self.await_(lambda: f"{urls[0]} is received again".encode() in read("said"))
        self.send(f"'{SAMPLE_PATH}' {urls[0]} -b 20M")
        self.assertEqual(receiver.wait(40), 0)
        self.assertTrue(read("file") == SAMPLE)

    # Datagrams of a stream, until enough have left and something is so, and the longest pause in between.
    def send_numbered(self, port, number, count, until=lambda: True):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sent, longest, last = 0, 0, time.monotonic()
            while sent < count or (not until() and sent < 6000):
                head, data = rtp(sent)[:12], rtp(sent)[12:]
                head = head[:2] + number(sent).to_bytes(2, "big") + head[4:]
                sender.sendto(head + data, ("127.0.0.1", port))
                time.sleep(0.01)
                now = time.monotonic()
                sent, longest, last = sent + 1, max(longest, now - last), now
            return longest

    def test_senders_whose_numbers_make_no_sense_are_told_once(self):
        jumping = random.Random(4)
        for port, number in (7230, lambda i: 7), (7231, lambda i: jumping.getrandbits(16)):
            told = lambda: read("said").count(b"with reorder=0 in the URL")
            receiver = self.receive(port, f"rtp://127.0.0.1:{port} file 2> said")
            self.send_numbered(port, number, 420, told)
            self.assertEqual(self.end(receiver), 0)
            self.assertEqual(told(), 1, (port, read("said")))

    # It waits for a datagram that is lost, while others go on coming.
    def test_what_waits_does_not_count_as_silence(self):
        for _ in range(10):
            receiver = self.receive(7232, "'rtp://127.0.0.1:7232?reorder=1000' file --idle-timeout 0.5 "
                                          "2> said")
            pause = self.send_numbered(7232, lambda i: i + (i > 9), 80)
            self.assertEqual(receiver.wait(40), 0)
            self.assertNotIn(b"with reorder=0 in the URL", read("said"))
            if read("file") == SAMPLE[:80 * 1316]:
                return
            self.assertGreater(pause, 0.3)  # the silence was the machine's
        self.skipTest("the machine is not quiet")


unittest.main(argv=sys.argv[:1] + sys.argv[3:], warnings="ignore")
