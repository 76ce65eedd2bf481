# Other programs as our receivers and our senders: clients_test.py TOOL SAMPLE PROGRAM. Exits 77 where the
# program is not installed.
import concurrent.futures, json, os, pathlib, shlex, shutil, signal, socket, subprocess, sys, tempfile, time, unittest

from impairer import Disorder
from tool_test import again_if_it_stood_still, patient

TOOL, SOURCE, PROGRAM = sys.argv[1:]
running = []  # all processes that this attempt has started, also those that have ended
SAMPLE = "/tmp/sample.ts"  # a copy that every user may read; the tool has another /tmp
PRIVATE_TMP = pathlib.Path(__file__).resolve().parents[1] / "scripts/private-tmp.sh"
NEEDS = {"ffmpeg": ["ffprobe"], "gstreamer": ["gst-launch-1.0"], "multicat": ["multicat", "ingests"],
         "vlc": ["vlc"], "tshark": ["tshark", "dumpcap"]}
FFMPEG = "ffmpeg -v fatal -y -analyzeduration 1000000 "
GST = "gst-launch-1.0 -q -e "
DEPAY = "caps=application/x-rtp,media=video,encoding-name=MP2T,clock-rate=90000,payload=33 ! rtpmp2tdepay ! "
DEMUX = "tsdemux name=d matroskamux name=m ! filesink location={out} d. ! queue ! mpegvideoparse ! m. d. ! queue ! mpegaudioparse ! m."
# It does not run as root. Of what it sends it keeps the end, more than half of the sample, to itself.
VLC = "setpriv --reuid 65534 --regid 65534 --clear-groups env HOME=/tmp/out vlc -I dummy -q "
# Where the stream goes, what the other program runs, and what has to be the same: all bytes, or, where it
# takes the stream apart, at least so much of the elementary streams, in one piece.
RECEIVERS = {
    "ffmpeg": [("udp://[::1]:7000", FFMPEG + "-f data -i {url}?timeout=4000000 -map 0 -c copy -f data {out}", "bytes"),
               ("udp://127.0.0.1:7002", FFMPEG + "-i {url}?timeout=4000000 -map 0 -c copy -f nut {out}", 1.0),
               ("udp://127.0.0.1:7006", FFMPEG + "-i {url}?timeout=4000000 -map 0 -c copy -f nut {out}", 1.0),
               ("rtp://239.1.1.1:7004", FFMPEG + "-i {url}?localaddr=127.0.0.1 -map 0 -c copy -f nut {out}", 0.35)],
    "gstreamer": [
        ("rtp://127.0.0.1:7010", GST + "udpsrc port=7010 " + DEPAY + "filesink location={out}", "bytes"),
        ("udp://239.1.1.1:7012", GST + "udpsrc address=239.1.1.1 multicast-iface=lo port=7012 ! filesink location={out}", "bytes"),
        ("rtp://[ff15::1]:7014", GST + "udpsrc address=ff15::1 multicast-iface=lo port=7014 " + DEPAY + DEMUX, 0.9),
        ("rtp://127.0.0.1:7016", GST + "udpsrc port=7016 " + DEPAY.replace("! ", "! rtpjitterbuffer ! ", 1) + DEMUX, 0.9)],
    "multicat": [("rtp://127.0.0.1:7020", "multicat -U @127.0.0.1:7020 {out}", "bytes"),
                 ("udp://239.1.1.1:7022", "multicat -u -U @239.1.1.1:7022/ifaddr=127.0.0.1 {out}", "bytes")],
    "vlc": [("udp://127.0.0.1:7030", VLC + "--demux dump --demuxdump-file {out} udp://@127.0.0.1:7030", "bytes"),
            ("rtp://127.0.0.1:7036", VLC + "rtp://@127.0.0.1:7036 --sout '#std{{access=file,mux=ts,dst={out}}}'", 0.8),
            ("rtp://239.1.1.1:7032", VLC + "rtp://@239.1.1.1:7032 --miface lo --sout '#std{{access=file,mux=ts,dst={out}}}'", 0.8)]}
SENDERS = {
    "ffmpeg": [("udp://127.0.0.1:7040", FFMPEG + "-re -i {sample} -map 0 -c copy -f mpegts {url}?pkt_size=1316", 1.0),
               ("rtp://[ff15::1]:7042", FFMPEG + "-re -i {sample} -map 0 -c copy -f rtp_mpegts {url}?localaddr=::1", 0.9)],
    "gstreamer": [
        ("udp://[::1]:7050", GST + "filesrc location={sample} blocksize=1316 ! udpsink host=::1 port=7050", "bytes"),
        ("rtp://239.1.1.1:7052", GST + "filesrc location={sample} ! tsparse set-timestamps=true ! rtpmp2tpay ! "
         "udpsink host=239.1.1.1 multicast-iface=lo port=7052", "bytes")],
    "multicat": [("udp://127.0.0.1:7060", "multicat -U /tmp/sample.ts 127.0.0.1:7060", "bytes"),
                 ("rtp://239.1.1.1:7062", "multicat /tmp/sample.ts 239.1.1.1:7062/ifaddr=127.0.0.1", "bytes")],
    "vlc": [("udp://127.0.0.1:7070", VLC + "{sample} vlc://quit --sout '#std{{access=udp,mux=ts,dst=127.0.0.1:7070}}'", 0.25),
            ("rtp://127.0.0.1:7072", VLC + "{sample} vlc://quit --sout '#rtp{{dst=127.0.0.1,port=7072,mux=ts}}'", 0.25)]}


# Senders of FEC, and the port to which the stream goes; columns go to the second above that, rows to the fourth.
FEC = {
    "ffmpeg": (7144, FFMPEG + "-re -i {sample} -map 0 -c copy -f rtp_mpegts -fec prompeg=l=5:d=4 rtp://127.0.0.1:7144"),
    "gstreamer": (7154, GST + "filesrc location={sample} ! tsparse set-timestamps=true ! rtpmp2tpay ssrc=0 ! "
                  "rtpst2022-1-fecenc name=f columns=5 rows=4 ! udpsink async=false host=127.0.0.1 port=7154 "
                  "f.fec_0 ! udpsink async=false host=127.0.0.1 port=7156 f.fec_1 ! udpsink async=false host=127.0.0.1 port=7158")}


DESCRIBED = {
    # It comes at any time to a stream in a loop, whose pictures can be decoded once a second, and whose times jump.
    "ffmpeg": FFMPEG + "-protocol_whitelist file,udp,rtp -analyzeduration 3000000 -i {sdp} -map 0:v -c copy "
              "-fs 200000 -f mpeg2video {out}",
    # It reads what is described, and plays it when it comes to the same file again.
    "vlc": VLC + "--miface lo --repeat {sdp} --sout '#std{{access=file,mux=ts,dst={out}}}'"}


CONSTANT = 7006, 7016, 7036  # what comes to these has twice its rate, by null packets


# What a program does not take in time is lost, also when other work keeps it from a processor: so these go first.
def start(command, **options):
    process = subprocess.Popen(["nice", "-n", "-15"] + shlex.split(command), stdin=subprocess.DEVNULL, **options)
    running.append(process)
    return process


def ours(arguments, **options):  # with a table of its own
    return start(f"unshare --mount '{PRIVATE_TMP}' '{TOOL}' {patient(arguments)}", **options)


def work_of(processes):  # the processor time that they have taken: a busy machine gives it to them slowly
    stats = [pathlib.Path("/proc", str(process.pid), "stat") for process in processes if process.poll() is None]
    return [stat.read_text().rsplit(") ")[1].split()[11:13] for stat in stats]


def await_(condition, processes):  # until it holds, or the processes have done nothing for so long
    done, end = None, 0
    while not condition():
        if done != (work := work_of(processes)):
            done, end = work, time.monotonic() + 15
        assert time.monotonic() < end, "it takes too long"
        time.sleep(0.01)


def sockets(port):  # the bytes that wait in each
    rows = [line.split() for name in ("udp", "udp6") for line in pathlib.Path("/proc/net", name).read_text().splitlines()]
    return [int(row[4][9:], 16) for row in rows if row[1].endswith(f":{port:04X}")]


def transmit(url, command, receives):
    port = int(url[-4:])
    out = f"/tmp/out/{port}"
    local = {"2": "localaddr=127.0.0.1", "[": "localaddr=::1"}[url[6]] if "239" in url or "ff15" in url else ""
    command = command.format(url=url, out=out, sample=SAMPLE)
    processes = [start(command) if receives else ours(f"receive '{url}?{local}' -", stdout=open(out, "wb"))]
    try:
        await_(lambda: sockets(port), processes)
        options = "--cbr 1.6M" if port in CONSTANT else ""
        processes += [ours(f"send '{SOURCE}' '{url}?{local}' {options}") if receives else start(command)]
        await_(lambda: processes[1].poll() is not None, processes)
        await_(lambda: sum(sockets(port)) == 0, processes)
        size = None  # what it has taken and not yet worked on would be lost with the signal
        while size != (size := os.path.exists(out) and os.path.getsize(out)):
            time.sleep(0.5)
        if "timeout=" not in command:  # else it ends by itself
            processes[0].send_signal(signal.SIGINT)
        await_(lambda: processes[0].poll() is not None, processes)
    finally:
        for process in processes:
            process.kill()
    return out


def elementary(path, kind):
    return subprocess.run(["ffmpeg", "-v", "fatal", "-i", path, "-map", "0:" + kind, "-c", "copy", "-f", "data", "-"], capture_output=True).stdout


class ClientsTest(unittest.TestCase):
    def setUp(self):
        self.processes = running
        while running:
            running[-1].kill()
            running.pop().wait()
        shutil.rmtree("/tmp/out", ignore_errors=True)
        os.mkdir("/tmp/out")
        os.chmod("/tmp/out", 0o777)

    # What comes while a program gets no processor is more than its socket holds.
    @again_if_it_stood_still
    def test_a_stream_is_the_same_at_the_other_end(self):
        cases = [(*case, True) for case in RECEIVERS.get(PROGRAM, [])] + [(*case, False) for case in SENDERS.get(PROGRAM, [])]
        with concurrent.futures.ThreadPoolExecutor(len(cases) or 1) as pool:
            outs = [pool.submit(transmit, url, command, receives) for url, command, _, receives in cases]
        wrong = []
        for (url, _, same, receives), out in zip(cases, outs):
            if same == "bytes":
                pairs = [(pathlib.Path(SAMPLE).read_bytes(), pathlib.Path(out.result()).read_bytes())]
            else:
                pairs = [(elementary(SAMPLE, kind), elementary(out.result(), kind)) for kind in "va"]
            least = 1 if same == "bytes" else same
            wrong += [(url, receives, len(sent), len(got)) for sent, got in pairs
                      if got not in sent or len(got) < least * len(sent)]
        self.assertEqual(wrong, [])

    # Every eleventh one, and a burst: the parities of rows and columns restore them together.
    @unittest.skipUnless(PROGRAM in FEC, "")
    def test_what_is_lost_is_restored_from_fec(self):
        port, command = FEC[PROGRAM]
        lost = {*range(41, 200, 11), *range(103, 106)}  # behind the first matrix, which not all protect
        for at, without in (port, lost), (port + 2, ()), (port + 4, ()):  # to the hundredth port below
            Disorder(at, at - 100, lambda number, without=without: (number not in without, 0))
        out = f"/tmp/out/{port}"
        receiver = ours(f"receive rtp://127.0.0.1:{port - 100}?fec - --statistics -i 10", stdout=open(out, "wb"), stderr=subprocess.PIPE)
        await_(lambda: sockets(port - 96), [receiver])
        sender = start(command.format(sample=SAMPLE))
        for process in receiver, sender:
            self.addCleanup(process.kill)
        self.assertEqual(sender.wait(60), 0)
        said = receiver.communicate(timeout=60)[1].decode()
        repair = json.loads(said.splitlines()[-1])["repair"]
        self.assertEqual((repair["lost"], repair["restored"]), (0, len(lost)), said)
        if PROGRAM == "gstreamer":
            self.assertTrue(pathlib.Path(out).read_bytes() == pathlib.Path(SAMPLE).read_bytes())
        else:
            sent, got = (elementary(path, "v") for path in (SAMPLE, out))
            self.assertTrue(got in sent and len(got) > 0.9 * len(sent))

    @unittest.skipUnless(PROGRAM == "ffmpeg", "")
    def test_ffprobe_joins_a_stream_that_is_under_way(self):
        probe = "ffprobe -v fatal -show_entries program_stream=codec_name,width,sample_rate -of csv "
        sender = ours(f"send --loop '{SOURCE}' rtp://127.0.0.1:7008")
        found = [subprocess.run((probe + source).split(), capture_output=True, timeout=60).stdout for source in (SAMPLE, "rtp://127.0.0.1:7008")]
        sender.send_signal(signal.SIGINT)
        self.assertEqual((sender.wait(60), found[0]), (0, found[1]))
        self.assertIn(b"mpeg2video", found[0])

    @unittest.skipUnless(PROGRAM in DESCRIBED, "")
    def test_a_description_is_opened_and_played(self):
        folder = tempfile.mkdtemp(dir=".")  # not in /tmp, of which the tool has another
        os.chmod(folder, 0o755)
        self.addCleanup(shutil.rmtree, folder)
        for url in "rtp://239.1.1.1:7084?localaddr=127.0.0.1", "rtp://127.0.0.1:7086":
            sender = ours(f"send --loop '{SOURCE}' '{url}' --sdp '{folder}'")
            # It gets its name when it is whole.
            await_(lambda: list(pathlib.Path(folder).glob("*.sdp")), [sender])
            sdp, out = *pathlib.Path(folder).glob("*.sdp"), f"/tmp/out/{len(url)}"
            player = start(DESCRIBED[PROGRAM].format(sdp=sdp, out=out))
            if PROGRAM == "vlc":  # which does not end by itself
                await_(lambda: os.path.exists(out) and os.path.getsize(out) > 400_000, [player, sender])
                player.send_signal(signal.SIGINT)
            await_(lambda: player.poll() is not None, [player, sender])
            sender.send_signal(signal.SIGINT)
            self.assertEqual((sender.wait(60), player.returncode, os.listdir(folder)), (0, 0, []))
            self.assertGreater(len(elementary(out, "v")), 50_000)

    @unittest.skipUnless(PROGRAM == "vlc", "")
    def test_vlc_lists_what_is_announced(self):
        player = subprocess.Popen(shlex.split(VLC.replace("dummy", "rc --rc-fake-tty --miface lo")), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, bufsize=1)
        player.stdin.write("sd sap\n")
        await_(lambda: sockets(9875), [player])
        sender = ours(f"send --loop '{SOURCE}' 'rtp://239.1.1.1:7088?localaddr=127.0.0.1' --announce 'Our news'")

        def is_listed():
            time.sleep(0.2)
            player.stdin.write("playlist\n")
            return "Our news" in next(line for line in player.stdout if "Our news" in line or "End of" in line)
        await_(is_listed, [player, sender])
        sender.send_signal(signal.SIGINT)
        self.assertEqual((player.communicate("quit\n")[1], sender.wait(60)), (None, 0))

    @unittest.skipUnless(PROGRAM == "tshark", "")
    def test_tshark_dissects_every_datagram_and_finds_no_fault(self):
        capture = start("dumpcap -q -i lo -f udp -a duration:60 -w /tmp/out/pcap", stderr=subprocess.DEVNULL)
        pcap, probe = pathlib.Path("/tmp/out/pcap"), socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        # It says that it captures before it does.
        await_(lambda: probe.sendto(bytes(200), ("127.0.0.1", 7099)) and pcap.exists() and pcap.stat().st_size > 4000, [capture])
        for url in ("rtp://239.1.1.1:7080?ttl=9&localaddr=127.0.0.1", "udp://239.1.1.1:7082?ttl=9&localaddr=127.0.0.1"):
            self.assertEqual(ours(f"send '{SOURCE}' '{url}' -b 20M").wait(60), 0)
        names = "udp.dstport ip.ttl rtp.version rtp.p_type rtp.seq rtp.timestamp mp2t.sync_byte _ws.expert.message"
        read = ["tshark", "-r", pcap, "-Y", "udp.dstport != 7099"] + (
            "-d udp.port==7080,rtp -d udp.port==7082,mp2t -T fields -e " + names.replace(" ", " -e ")).split()
        rows = []

        def complete():
            rows[:] = [line.split("\t") for line in subprocess.run(read, capture_output=True, text=True).stdout.splitlines()]
            return len(rows) >= 2 * 269
        await_(complete, [capture])
        capture.send_signal(signal.SIGINT)
        for i, row in enumerate(rows):
            rtp = ["2", "33", str(i), str(i * 1316 * 8 * 90000 // 20_000_000)] if i < 269 else [""] * 4
            self.assertEqual(row, ["7080" if i < 269 else "7082", "9", *rtp, ",".join(["0x00000047"] * 7), ""], i)
        self.assertEqual(len(rows), 2 * 269)


if any(shutil.which(name) is None for name in ["ffmpeg"] + NEEDS[PROGRAM]) or (
        PROGRAM == "gstreamer" and subprocess.call("gst-inspect-1.0 --exists tsdemux".split()) != 0):
    print(PROGRAM, "is not installed")
    sys.exit(77)
shutil.copyfile(SOURCE, SAMPLE)
if PROGRAM == "multicat":  # a file that it sends has the times of its packets beside it
    subprocess.run("ingests -p 256 /tmp/sample.ts".split(), check=True)
unittest.main(argv=sys.argv[:1], warnings="ignore")
