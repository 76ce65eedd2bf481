#!/usr/bin/env python3
"""page_test.py TOOL SAMPLE Http|Browser: the page's server by plain sockets, and the page in Chromium."""
import contextlib, json, os, pathlib, re, shutil, signal, socket, subprocess, sys, time, unittest

from tool_test import HERE, SAMPLE_PATH, TOOL, ToolTest

PRIVATE = [f"{HERE.parent}/scripts/private-tmp.sh"]
PORT = 9810
STREAM = "udp://127.0.0.1:5000"
# The sample has a seam where it begins anew, which is a fault; here silence counts.
MONITOR = f"""[[monitor]]
url = "{STREAM}"
ignore = ["continuity_count_error", "pcr_discontinuity_error", "pcr_repetition_error", "media_loss",
          "pcr_accuracy_error", "pts_error", "delay_factor", "pat_error", "pmt_error", "pid_error",
          "second_sender", "si_repetition_error", "ts_sync_loss", "datagram_size"]
clear_after = 3
"""
# Relays by all channels that a host has, from sixteen ports to those 500 above.
HOST = f"""
import os, sys, time
os.environ["QXV_RTP_LIBRARY"] = "{pathlib.Path(TOOL).parent.parent}/lib/libQXV_RTP.so"
sys.path.insert(0, "{HERE.parent}/python")
import qxv_rtp
url, module = "udp://127.0.0.1:%d", qxv_rtp.Module()
pairs = [(module.receive(i, url % (port + i)), module.send(i, url % (port + i + 500), bitrate=2_000_000))
         for port in [int(sys.argv[1])] for i in range(16)]
while True:
    for source, destination in pairs:
        if source.available:
            destination.write(source.read_some(timeout=0))
    time.sleep(0.04)
"""


def connect(text=b""):
    client = socket.create_connection(("127.0.0.1", PORT), 30)
    client.sendall(text)
    return client


def rest(client):  # until the server closes the connection
    answer = b""
    with contextlib.suppress(ConnectionResetError):
        while data := client.recv(65536):
            answer += data
    return answer


def request(text):
    with connect(text if isinstance(text, bytes) else text.encode()) as client:
        return rest(client)


def get(path):
    head, _, body = request(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n").partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200"), (path, head)
    return body.decode()


class PageTest(ToolTest):
    # A host replaces the table of its /tmp; each has its own.
    def start(self, *arguments, program=TOOL):
        process = subprocess.Popen(["unshare", "--mount", *PRIVATE, program, *arguments],
                                   stdin=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def await_(self, condition, what, seconds=60):
        end = time.monotonic() + seconds
        while not (result := condition()):
            self.assertLess(time.monotonic(), end, what)
            time.sleep(0.1)
        return result

    def serve(self, *arguments):
        server = self.start("serve", *arguments)

        def answers():
            self.assertIsNone(server.poll())
            with contextlib.suppress(OSError):
                return request("GET /api/v1/state HTTP/1.1\r\nHost: [::1]\r\n\r\n").startswith(b"HTTP/1.1 200")
        self.await_(answers, "the server answers")
        return server

    def send(self, *arguments, **options):
        return self.start("send", SAMPLE_PATH, *arguments, "--loop", **options)


class Http(PageTest):
    def test_it_answers_questions_only_and_only_under_its_own_names(self):
        server = self.serve("--host", "proxy.example,other.example")
        host = "Host: localhost:9810\r\n"
        for status, first, headers in (
                (200, "GET / HTTP/1.1", host),
                (200, "HEAD / HTTP/1.1", host),
                (200, "HEAD /api/v1/events HTTP/1.1", host),
                (200, "GET /metrics HTTP/1.1", "Host: 127.0.0.1\r\n"),
                (200, "GET / HTTP/1.1", "Host: [::1]:9810\r\n"),
                (200, "GET / HTTP/1.1", "Host: Other.Example:443\r\n"),
                (421, "GET / HTTP/1.1", "Host: evil.example\r\n"),
                (421, "GET / HTTP/1.1", "Host: localhost.evil.example\r\n"),
                (421, "GET / HTTP/1.1", "Host: 192.0.2.1\r\n"),
                (421, "GET /api/v1/events HTTP/1.1", "Host: 127.0.0.1.evil.example:9810\r\n"),
                (400, "GET / HTTP/1.1", ""),
                (400, "GET / HTTP/1.1", host + "Host: evil.example\r\n"),
                (400, "GET / HTTP/1.1", host + "Content-Length: 5\r\n"),
                (400, "GET / HTTP/1.1", host + "Transfer-Encoding: chunked\r\n"),
                (403, "GET /api/v1/state HTTP/1.1", host + "Sec-Fetch-Site: cross-site\r\n"),
                (200, "GET / HTTP/1.1", host + "Sec-Fetch-Site: cross-site\r\n"),
                (405, "POST /api/v1/state HTTP/1.1", host + "Content-Length: 0\r\n"),
                (405, "DELETE / HTTP/1.1", host),
                (404, "GET /../../etc/passwd HTTP/1.1", host),
                (404, "GET /%2e%2e/%2e%2e/etc/passwd HTTP/1.1", host),
                (200, "GET / HTTP/1.1", host + "Range: bytes=" + "0-," * 1000 + "0-\r\n")):
            with self.subTest(first, headers=headers[:60]):
                answer = request(f"{first}\r\n{headers}\r\n")
                self.assertEqual(answer.split(b" ")[1], str(status).encode(), answer[:300])
                self.assertIn(b"Content-Security-Policy: default-src 'none';", answer)
                self.assertIn(b"X-Content-Type-Options: nosniff", answer)
                self.assertNotIn(b"Access-Control", answer)
                self.assertEqual(first.startswith("HEAD"), answer.endswith(b"\r\n\r\n") and
                                 status == 200)
        # What is no request, or too large for one, gets no page and no thread for long.
        for text in (b"\0" * 100 + b"\r\n\r\n", b"GET /" + b"a" * 100000,
                     b"GET / HTTP/1.1\r\n" + b"".join(b"X-%d: y\r\n" % i for i in range(5000))):
            with contextlib.suppress(ConnectionError):
                self.assertNotIn(b" 200 ", request(text))
        self.assertEqual(self.end(server), 0)

    def test_slow_and_many_clients_delay_nobody(self):
        server = self.serve()
        events = b"GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n"
        with contextlib.ExitStack() as stack:
            slow = [stack.enter_context(connect(b"GET / HTTP/1.1\r\nHost: loc")) for _ in range(40)]
            listeners = [stack.enter_context(connect(events)) for _ in range(50)]
            # Everybody is told once a second.
            for client in listeners:
                numbers, file = [], stack.enter_context(client.makefile("rb"))
                while len(numbers) < 3:
                    line = file.readline()
                    self.assertTrue(line, "a listener is cut off")
                    if line.startswith(b"data: "):
                        numbers.append(json.loads(line[6:])["number"])
                self.assertEqual(numbers, sorted(set(numbers)))
            self.assertIn("problems", get("/api/v1/state"))
            # Drops of a request do not keep a connection open.
            for client in slow:
                with contextlib.suppress(OSError):
                    client.sendall(b"a")
            for client in slow:
                rest(client)
            # Listeners leave room for others, and there is an end to the others, too.
            more = [stack.enter_context(connect(events)) for _ in range(30)]
            answers = [client.recv(12) for client in more]
            self.assertEqual(sorted(answers), [b"HTTP/1.1 200"] * 14 + [b"HTTP/1.1 503"] * 16)
            get("/")

            def crowded():
                for _ in range(80):
                    stack.enter_context(connect())
                return request("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n").startswith(b"HTTP/1.1 503")
            self.await_(crowded, "too many are refused")
            # It ends, whoever is there.
            begin = time.monotonic()
            self.assertEqual(self.end(server), 0)
            self.assertLess(time.monotonic() - begin, 20)

    def test_a_client_that_takes_nothing_of_its_answer_is_cut_off(self):
        server = self.serve()
        buffers = pathlib.Path("/proc/sys/net/ipv4/tcp_wmem")  # of this namespace
        self.addCleanup(buffers.write_text, buffers.read_text())
        buffers.write_text("4096 4096 4096")

        def threads():
            return set(os.listdir(f"/proc/{server.pid}/task"))
        before = threads()
        with socket.socket() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            client.connect(("127.0.0.1", PORT))
            client.sendall(b"GET /overview.js HTTP/1.1\r\nHost: localhost\r\n\r\n")
            serving = self.await_(lambda: threads() - before, "it is served")
            self.await_(lambda: not serving & threads(), "it is given up")
            answer = rest(client)
        self.assertTrue(answer.startswith(b"HTTP/1.1 200"))
        self.assertLess(len(answer), len(get("/overview.js")))

    def test_hosts_streams_history_and_metrics(self):
        begun = time.time()
        self.serve(STREAM)
        hostile = '<b>"&'
        os.symlink(TOOL, hostile)
        sender = self.send(STREAM, program=os.path.abspath(hostile))

        def state(): return json.loads(get("/api/v1/state"))
        self.await_(lambda: state()["streams"][0]["bitrate_bps"], "a rate is measured")
        host = self.await_(lambda: state()["hosts"], "the host is seen")[0]
        self.assertEqual((host["pid"], host["command"]), (sender.pid, hostile))
        self.assertEqual(host["channels"][0]["endpoint"], "127.0.0.1:5000")
        full = json.loads(get("/api/v1/hosts"))["hosts"][0]
        self.assertEqual(full["channels"][0]["port"], 5000)
        found = json.loads(get(f"/api/v1/streams?stream={STREAM}"))["streams"]
        self.assertEqual([stream["url"] for stream in found], [STREAM])
        self.assertTrue(found[0]["signal"] and found[0]["pids"])
        self.assertEqual(json.loads(get("/api/v1/streams?stream=none"))["streams"], [])

        def known(query):
            hour = json.loads(get(f"/api/v1/history?points=3600&{query}"))
            self.assertEqual(len(hour["bitrate_bps"]), len(hour["errors"]))
            self.assertEqual(hour["interval_seconds"], 1)
            return [rate for rate in hour["bitrate_bps"] if rate]
        for query in (f"stream={STREAM}", f"pid={sender.pid}&direction=send&channel=0"):
            self.await_(lambda: len(known(query)) >= 3, "the history grows")
            self.assertTrue(all(1e4 < rate < 1e8 for rate in known(query)))
        self.assertEqual(known(f"pid={sender.pid}&direction=receive&channel=0"), [])
        self.assertEqual(len(json.loads(get("/api/v1/history"))["series"]), 2)

        # A relay's inputs have sockets of their own, which show in no table.
        relay = self.start("relay", "rtp://127.0.0.1:5002?reorder=20", "udp://127.0.0.1:5004", "--or",
                           "udp://127.0.0.1:5006")
        shown = self.await_(lambda: [p for p in state()["processes"] if p["pid"] == relay.pid],
                            "the relay's streams are seen")[0]["streams"][0]
        self.assertEqual((shown["kind"], shown["inputs"][0]["state"]), ("relay", "no signal"))
        title = f"qxvrtp (process {relay.pid}): relay from "

        def silent():
            return [(p["title"].removeprefix(title), p["level"]) for p in state()["problems"]
                    if p["title"].startswith(title)]
        self.await_(lambda: sorted(silent()) == [("rtp://127.0.0.1:5002?reorder=20", "alarm"),
                                                 ("udp://127.0.0.1:5006", "alarm")], "alarms")
        feeder = self.send("rtp://127.0.0.1:5002")
        self.await_(lambda: silent() == [("udp://127.0.0.1:5006", "warning")], "one is on air")
        self.await_(lambda: {p["pid"] for p in json.loads(get("/api/v1/processes"))["processes"]} ==
                    {sender.pid, relay.pid, feeder.pid}, "all processes are seen")
        metrics = get("/metrics")
        self.assertRegex(metrics, f'qxvrtp_stream_lost_datagrams_total{{pid="{relay.pid}",.*}} 0\n')
        for process in feeder, relay:
            self.end(process)
        self.await_(lambda: len(state()["processes"]) == 1, "they are gone")
        metrics = get("/metrics")
        for line in ("qxvrtp_hosts 1\n", f'qxvrtp_channel_running{{pid="{sender.pid}"',
                     'qxvrtp_monitor_signal{url="udp://127.0.0.1:5000"', "process_resident_memory_bytes "):
            self.assertIn(line, metrics)
        types = [line for line in metrics.splitlines() if line.startswith("# TYPE")]
        self.assertEqual(len(types), len(set(types)))
        self.assertTrue(begun - 2 < float(metrics.rsplit(" ", 1)[1]) < time.time() + 1)

        self.end(sender, signal.SIGKILL)
        self.await_(lambda: {("warning", sender.pid), ("alarm", None)} <=
                    {(p["level"], p["pid"]) for p in state()["problems"]},
                    "an end is a warning, silence an alarm")
        self.assertEqual(state()["ended"][0]["pid"], sender.pid)
        log, last = (json.loads(get("/api/v1/log" + after))["events"] for after in ("", "?after=2"))
        self.assertIn("host", [event["kind"] for event in log])
        self.assertEqual(last[:len(log) - 2], log[2:])
        self.assertTrue(known(f"pid={sender.pid}&direction=send&channel=0"))

    def test_a_changed_file_changes_the_streams_and_nothing_else(self):
        entry = "[[monitor]]\nurl = 'udp://127.0.0.1:{}'\n"
        file = pathlib.Path("page.toml")
        file.write_text(entry.format(5010) + entry.format(5012))
        server = self.serve("--config", os.path.abspath(file))
        self.send("udp://127.0.0.1:5012")

        def datagrams():
            return {stream["url"][-4:]: stream["datagrams"]
                    for stream in json.loads(get("/api/v1/streams"))["streams"]}
        before = self.await_(lambda: datagrams()["5012"], "the second stream is there")
        for text, ports in ((entry.format(5012) + entry.format(5014), {"5012", "5014"}),
                            (entry.format(5012), {"5012"})):
            file.write_text(text)
            server.send_signal(signal.SIGHUP)
            self.await_(lambda: datagrams().keys() == ports, ports)
            self.assertGreaterEqual(datagrams()["5012"], before)
        self.assertEqual(self.end(server), 0)

    def test_wrong_addresses_are_refused(self):
        self.serve()
        for code, listen in ((2, "9810"), (2, "localhost:9810"), (2, "127.0.0.1:0"), (2, "::1:9810"),
                             (2, "127.0.0.1:99999"), (1, "127.0.0.1:9810"), (1, "192.0.2.1:9811")):
            self.assertEqual(self.start("serve", "--listen", listen).wait(20), code, listen)
        server = self.start("serve", "--listen", "[::1]:9811")
        self.await_(lambda: socket.socket(socket.AF_INET6).connect_ex(("::1", 9811)) == 0, "listens")
        self.assertEqual(self.end(server), 0)


class Browser(PageTest):
    def setUp(self):
        super().setUp()
        options = webdriver.ChromeOptions()
        for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage",
                         "window-size=1280,900", "disable-background-networking"):
            options.add_argument("--" + argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.page = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.addCleanup(self.page.quit)

    def open(self):
        self.page.get(f"http://127.0.0.1:{PORT}/")

    def text(self, selector):
        return self.page.execute_script(
            "return [...document.querySelectorAll(arguments[0])]"
            ".filter(e => e.checkVisibility()).map(e => e.innerText).join('\\n')", selector)

    def sees(self, selector, *parts, seconds=90):
        self.await_(lambda: all(part in self.text(selector) for part in parts),
                    (selector, parts), seconds)

    def assert_fits(self):
        for width in (390, 1280):
            self.page.set_window_size(width, 900)
            self.assertLessEqual(*self.page.execute_script(
                "return [document.documentElement.scrollWidth, innerWidth]"))

    def press(self, keys):
        self.page.switch_to.active_element.send_keys(keys)

    def focused(self):
        return self.page.execute_script("const e = document.activeElement; return [e.tagName, e.innerText]")

    # Whatever can be clicked is reached by the Tab key, and shows that it is.
    def assert_reachable(self, scope):
        missed = self.page.execute_script("""
            window.missed = new Set([...document.querySelectorAll(arguments[0])]
                .filter(e => e.matches("button, summary, #events") && e.checkVisibility()));
            addEventListener("focusin", ({target}) =>
                getComputedStyle(target).outlineStyle !== "none" && missed.delete(target));
            return missed.size""", scope + " *")
        self.assertGreater(missed, 3)
        self.press(Keys.TAB * (missed + 5))
        self.assertEqual(self.page.execute_script("return [...missed].map(e => e.innerText)"), [])

    def test_alarms_deaths_and_returns_show(self):
        pathlib.Path("page.toml").write_text(MONITOR)
        watch = ["--config", os.path.abspath("page.toml")]
        server = self.serve(*watch)
        hostile = '<img/src=x>'.replace("/", "\u2215")
        os.symlink(TOOL, hostile)
        sender = self.send(STREAM, program=os.path.abspath(hostile))
        self.open()
        self.sees("#hosts", "send 0", "127.0.0.1:5000", "bit/s", str(sender.pid))
        self.sees("#processes", "on air", f"send to {STREAM}", str(sender.pid))
        self.sees("#streams", STREAM, "kbit/s")
        self.sees("#age", "Live")

        # By keyboard: the first stream's details, and back.
        self.page.execute_script("document.querySelector('#streams button').focus()")
        self.press(Keys.ENTER)
        self.sees("#details", "Close", "Rate in the last hour", "Continuity count error", "PIDs")
        self.await_(lambda: self.page.execute_script(
            "return document.querySelectorAll('#rate-chart canvas').length"), "a chart")
        self.assert_reachable("#details")
        self.press(Keys.ESCAPE)
        self.await_(lambda: not self.text("#details"), "closed")
        self.assertEqual(self.focused(), ["BUTTON", STREAM])

        self.end(sender, signal.SIGKILL)
        self.sees("#problems", "Alarm", STREAM, "Warning", "no longer a host")
        self.sees("#verdict", "1 alarm, 1 warning")
        self.sees("#ended", str(sender.pid))
        self.sees("#events", "Alarm")
        self.assertIn("(1)", self.page.title)
        self.assertIn("<img", self.text("#ended"))
        self.assertEqual(self.page.execute_script("return document.images.length"), 0)

        sender = self.send(STREAM)
        self.await_(lambda: "Alarm" not in self.text("#problems"), "the alarm is cleared")
        self.sees("#events", "Cleared")
        self.sees("#hosts", str(sender.pid))

        self.end(server, signal.SIGKILL)
        self.sees("#old", "does not answer", "from")
        self.sees("#hosts", str(sender.pid))
        self.serve(*watch)
        self.await_(lambda: not self.text("#old"), "it recovers")
        self.sees("#age", "Live")
        self.sees("#verdict", "Everything works")
        errors = [entry["message"] for entry in self.page.get_log("browser")
                  if not re.search("ERR_(CONNECTION|INCOMPLETE|EMPTY)", entry["message"])]
        self.assertEqual(errors, [])
        self.assert_fits()

    def test_four_hosts_of_32_channels_fit_and_what_is_wrong_comes_first(self):
        hosts = [self.start("-c", HOST, str(port), program=sys.executable)
                 for port in (5100, 5200, 5300, 5400)]
        server = self.serve()
        self.open()
        self.sees("header", "4 hosts, 128 channels")
        self.sees("#verdict", "64 alarms, 64 warnings")
        self.sees("#problems", *(f"(process {host.pid}): 16 channels" for host in hosts),
                  "receive 0 to 15", "send 0 to 15")
        self.assertEqual(len(self.page.find_elements("css selector", "#problems li")), 8)
        pathlib.Path("send.toml").write_text("".join(
            f"[[send]]\ninput = '{SAMPLE_PATH}'\nloop = true\nurl = 'udp://127.0.0.1:{5100 + i}'\n"
            for i in range(16)))
        feeder = self.start("send", "-c", os.path.abspath("send.toml"))
        self.sees("#verdict", "48 alarms, 48 warnings")
        # The host that works is below the others now, and for who comes anew it is folded.
        self.page.refresh()
        self.sees("header", "5 hosts, 144 channels")
        cards = self.page.execute_script("return [...document.querySelectorAll('#host-list > details')]"
                                         ".map(e => [e.innerText.split('\\n')[0], e.open])")
        self.assertEqual([is_open for _, is_open in cards], [True] * 3 + [False] * 2, cards)
        self.assertIn("16 send, ", self.text("#host-list > details:not([open])"))
        self.assert_reachable("main")
        # What stands for many leads to all of them, from there to one, and back.
        self.page.execute_script("document.querySelector('#problems button').focus()")
        self.press(Keys.ENTER)
        self.await_(lambda: self.focused()[0] == "SUMMARY", "its host is shown")
        self.assertGreater(self.page.execute_script("return scrollY"), 0)
        self.press(Keys.TAB)
        link = self.focused()
        self.assertEqual(link[0], "BUTTON")
        self.press(Keys.ENTER)
        self.sees("#details-title", link[1] + ", 127.0.0.1:")
        self.press(Keys.ESCAPE)
        self.await_(lambda: self.focused() == link, "back again")
        # The focus stays on a host while that unfolds and moves to the top, and others go.
        self.page.execute_script("document.querySelector('details:not([open]) summary').focus()")
        self.press(Keys.ENTER)
        self.end(feeder)
        self.end(hosts[1], signal.SIGKILL)
        self.sees("header", "3 hosts, 96 channels")
        self.sees("#host-list > details:first-child", f"(process {hosts[0].pid})")
        self.assertIn(f"(process {hosts[0].pid})", self.focused()[1])
        self.assert_fits()
        status = pathlib.Path(f"/proc/{server.pid}/status").read_text()
        self.assertLess(int(status.split("VmHWM:")[1].split()[0]), 24 << 10)  # KiB, without the hour

    def test_without_charts_there_is_a_table(self):
        subprocess.run("mount -t tmpfs none /usr/share/javascript", shell=True, check=True)
        self.addCleanup(subprocess.run, "umount /usr/share/javascript", shell=True, check=True)
        self.serve(STREAM)
        self.send(STREAM)
        self.open()
        self.sees("#streams", "kbit/s")
        self.page.find_element("css selector", "#streams button").click()
        self.sees("#details", "libjs-dygraphs")
        self.sees("#stand-in", "Rate")


if __name__ == "__main__":
    # Processes of its own: hosts of other tests are none of these.
    if os.getpid() != 1:
        os.execvp("unshare", ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc",
                              sys.executable, *sys.argv])
    if any(name.startswith("Browser") for name in sys.argv[3:]):
        try:
            from selenium import webdriver
            from selenium.webdriver.chrome.service import Service
            from selenium.webdriver.common.keys import Keys
        except ImportError:
            sys.exit(print("skipped: python3-selenium is not installed") or 77)
        if not all(map(shutil.which, ("chromium", "chromedriver"))):
            sys.exit(print("skipped: chromium-driver is not installed") or 77)
    unittest.main(argv=sys.argv[:1] + sys.argv[3:], warnings="ignore")
