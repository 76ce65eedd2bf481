#!/usr/bin/env python3
"""internet_test.py TOOL SAMPLE PROTOCOL: the recipes of docs/internet.md, as they stand there, over a network that
loses datagrams. Exits 77 where the protocol's programs are not installed."""
import os, pathlib, re, shutil, signal, subprocess, sys, time, unittest

from impairer import Impairer
from tool_test import NULL_PACKET, SAMPLE, TOOL, ToolTest, is_bound

PROTOCOL = sys.argv[3]
ROOT = pathlib.Path(__file__).resolve().parents[1]
RECIPES = dict(re.findall(r"^```sh (\S+)\n(.*?)^```", (ROOT / "docs/internet.md").read_text(), re.M | re.S))
PROGRAMS = {"srt": ["srt-live-transmit"], "rist": ["ristsender", "ristreceiver"]}[PROTOCOL]


class Internet(ToolTest):
    def setUp(self):
        super().setUp()
        os.symlink(TOOL, "qxvrtp")

    def start(self, line, **options):  # each with a table of its own, and all that it starts
        command = ["unshare", "--mount", ROOT / "scripts/private-tmp.sh", "sh", "-c", line]
        environment = dict(os.environ, PATH=os.getcwd() + ":" + os.environ["PATH"])
        process = subprocess.Popen(command, env=environment, start_new_session=True, stdin=subprocess.DEVNULL,
                                   stderr=options.pop("stderr", subprocess.DEVNULL), **options)
        self.addCleanup(process.wait)
        self.addCleanup(self.kill, process)
        return process

    @staticmethod
    def kill(process):
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()

    def run_recipe(self, name):
        recording = pathlib.Path("recording")
        recording.unlink(missing_ok=True)
        impairer = Impairer(9001, 9000, loss=0.02, delay=0.02, jitter=0.01, seed=7)
        self.addCleanup(impairer.end)
        processes = [self.start("exec qxvrtp receive udp://239.2.2.2:5000 recording")]
        for side in "receiving", "sending":
            for line in RECIPES[f"{name}-{side}"].splitlines():
                processes.append(self.start(line.replace("far.example.org:9000", "127.0.0.1:9001"),
                                            stdout=subprocess.DEVNULL))
            if side == "receiving":
                self.await_(lambda: is_bound(9000))
        self.await_(lambda: impairer.seen > 4)  # they have found each other
        # The beginning may be lost, before all is ready, and what a busy machine brings too late.
        pathlib.Path("input").write_bytes(NULL_PACKET.ljust(188, b"\xff") * 2000 + SAMPLE * 2)
        processes.append(self.start("exec qxvrtp send --loop input udp://239.1.1.1:5000 -b 2M"))

        def has_whole_copy():
            time.sleep(0.1)  # whose looking would else keep others from working
            return recording.exists() and SAMPLE in recording.read_bytes()[-2_000_000:]
        self.await_(has_whole_copy)
        self.assertGreater(impairer.lost, 5)
        for process in processes:
            self.kill(process)
        impairer.end()

    def test_every_byte_arrives_by_each_recipe(self):
        names = [name.removesuffix("-sending") for name in RECIPES
                 if name.startswith(PROTOCOL) and name.endswith("-sending")]
        self.assertEqual(len(names), 2)
        for name in names:
            with self.subTest(name):
                self.run_recipe(name)


if any(shutil.which(name) is None for name in PROGRAMS):
    print(*PROGRAMS, "are not installed")
    sys.exit(77)
unittest.main(argv=sys.argv[:1], warnings="ignore")
