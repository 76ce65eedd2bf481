#!/usr/bin/env python3
"""announce_test.py TOOL SAMPLE [TEST...]: streams are described to other programs, and announced."""
import os, signal, socket, struct, sys, unittest

from tool_test import SAMPLE, SAMPLE_PATH, ToolTest, is_bound, read, write


class Announce(ToolTest):
    def listen(self, group):
        listener = self.udp()
        listener.bind((group, 9875))
        listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        listener.setsockopt(socket.IPPROTO_IP, 12, 1)  # IP_RECVTTL
        listener.settimeout(20)
        return listener

    def test_files_and_packets_are_there_while_the_stream_is_sent(self):
        os.mkdir("made")
        everywhere, here = self.listen("224.2.127.254"), self.listen("239.255.255.255")
        urls = ["rtp://239.1.1.1:7400?ttl=3&localaddr=127.0.0.1", "rtp://127.0.0.1:7402",
                "udp://239.1.1.1:7404", "rtp://239.255.1.1:7406?ttl=1&iface=lo"]
        pairs = " ".join(f"'{SAMPLE_PATH}' '{url}'" for url in urls)
        sender = self.tool(f"send --loop {pairs} --sdp made --announce 'One & all' 2> said")
        names = ["239.1.1.1_7400_127.0.0.1.sdp", "127.0.0.1_7402.sdp",
                 "239.255.1.1_7406_127.0.0.1.sdp"]
        self.await_(lambda: sorted(os.listdir("made")) == sorted(names))
        sessions = set()
        for name, listener, group, ttl in ((names[0], everywhere, b"239.1.1.1", b"3"),
                                           (names[2], here, b"239.255.1.1", b"1")):
            text = read("made/" + name)
            self.assertIn(b"\r\ns=One & all\r\nc=IN IP4 " + group + b"/" + ttl + b"\r\n", text)
            packet, ancillary, _, _ = listener.recvmsg(2048, 64)
            self.assertEqual(packet[:2] + packet[4:], b"\x20\0" + socket.inet_aton("127.0.0.1")
                             + b"application/sdp\0" + text)
            self.assertEqual(struct.unpack("i", ancillary[0][2])[0], 255)
            sessions.add(packet[2:4])
        self.assertEqual(len(sessions), 2)
        self.assertIn(b"c=IN IP4 127.0.0.1\r\n", read("made/" + names[1]))
        # A description leads to the stream, of a command and of a service.
        write("watch.toml", f"[[receive]]\nurl = 'file://{os.getcwd()}/made/{names[1]}'\n"
              "output = 'unicast'\nbytes = 13160".encode())
        receivers = [self.tool(f"receive made/{names[0]} - -n 13160 > group"),
                     self.tool("receive -c watch.toml")]
        self.assertEqual([receiver.wait(40) for receiver in receivers], [0, 0])
        self.assertTrue(read("group")[:188] in SAMPLE and read("unicast")[:188] in SAMPLE)
        self.assertEqual(self.end(sender), 0)
        self.assertEqual(os.listdir("made"), [])
        for listener in everywhere, here:
            packet = listener.recv(2048)
            while packet[0] == 0x20:
                packet = listener.recv(2048)
            self.assertEqual(packet[0], 0x24)

    def test_a_folder_that_is_not_there_and_a_wrong_file_are_told(self):
        sender = self.tool(f"send '{SAMPLE_PATH}' rtp://127.0.0.1:7410 --sdp none -b 8M 2> said")
        self.assertEqual(sender.wait(40), 0)
        self.assert_said("cannot write 'none/127.0.0.1_7410.sdp': No such file")
        write("wrong.sdp", b"v=0\nc=IN IP4 239.1.1.1\nm=video 5000 RTP/AVP 96\n")
        write("wrong.toml", b"[[relay]]\nfrom = 'wrong.sdp'\nto = 'udp://127.0.0.1:7411'\n")
        for command, told in ((f"send '{SAMPLE_PATH}' udp://127.0.0.1:7411 --announce x",
                               "qxvrtp: --announce: only a stream that is sent to rtp://"),
                              ("relay udp://127.0.0.1:7410 rtp://127.0.0.1:7411 --announce x",
                               "qxvrtp: --announce: only what is sent to a group is announced"),
                              ("receive wrong.sdp -", "qxvrtp: 'wrong.sdp': it describes no"),
                              ("monitor none.sdp", "qxvrtp: cannot read 'none.sdp': No such"),
                              ("relay -c wrong.toml",
                               "wrong.toml:2:8: relay[0].from: 'wrong.sdp': it describes no")):
            self.assertNotEqual(self.tool(command + " 2> said > /dev/null").wait(40), 0)
            self.assert_said(told)

    def test_what_ends_takes_its_own_back_and_a_relay_announces_each_output(self):
        os.mkdir("made")
        write("live.toml", f"""[[send]]\ninput = '{SAMPLE_PATH}'\nurl = 'rtp://127.0.0.1:7420'
            loop = true\nsdp = 'made'\n[[send]]\ninput = '{SAMPLE_PATH}'\nbitrate = 8_000_000
            url = 'rtp://127.0.0.1:7422'\nsdp = 'made'\n""".encode())
        sender = self.tool("send -c live.toml 2> said")
        self.await_(lambda: os.listdir("made") == ["127.0.0.1_7420.sdp"])
        relay = self.tool("relay made/127.0.0.1_7420.sdp rtp://127.0.0.1:7424 udp://127.0.0.1:7426 "
                          "'rtp://[::1]:7428' --sdp made")
        self.await_(lambda: sorted(os.listdir("made")) == [
            "--1_7428.sdp", "127.0.0.1_7420.sdp", "127.0.0.1_7424.sdp"])
        self.assertIn(b"IN IP6 ::1\r\n", read("made/--1_7428.sdp"))
        self.assertTrue(is_bound(7420))
        self.assertEqual((self.end(relay), self.end(sender, signal.SIGINT)), (0, 0))
        self.assertEqual(os.listdir("made"), [])


unittest.main(argv=sys.argv[:1] + sys.argv[3:], warnings="ignore")
