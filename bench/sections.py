"""The sections of the bench: what each compares, how it is measured, and its goals."""

import json
import subprocess
import sys
from collections.abc import Callable, Iterator

from contenders import (BARE, BLOCKING, DRAIN, FEED, FFMPEG, GSTREAMER, MULTICAT, POLL_1, POLL_10,
                        TOOL, Contender, Contenders)
from measure import LATEST, RESIDENT, Bench, Values
from report import Goal, Section
from stream import Load

ALL_PEERS = (MULTICAT, GSTREAMER, FFMPEG)
WAYS = {"spread": "evenly spread", "bursts": "in bursts of a millisecond"}
LONG_S = 60.0


def only(them: list[Contender], *names: str) -> list[Contender]:
    return [one for one in them if one.name in names]


Measurement = Callable[[Contender], Values]


def receiving(bench: Bench, way: str, seconds: float, pin: bool) -> Measurement:
    return lambda one: bench.receiving(one.commands, one.load, way, seconds, pin)


def sending(bench: Bench, seconds: float, pin: bool) -> Measurement:
    return lambda one: bench.sending(one.commands, one.load, seconds, pin)


def capacity(bench: Bench, routine: str, seconds: float) -> Measurement:
    return lambda one: bench.capacity(one.commands, one.load.channels, routine, seconds)


def deployed(bench: Bench, them: Contenders, seconds: float) -> Iterator[Section]:
    """Nothing is pinned to a processor."""
    for form in ("raw", "rtp"):
        yield Section(
            f"send-{form}", f"Sending 16 x 8 Mbit/s, {form}", them.senders(Load(form=form)),
            sending(bench, seconds, False),
            [Goal(TOOL, (FEED,), 1.05), Goal(TOOL, (MULTICAT,), 0.6),
             Goal(TOOL, (), 32, RESIDENT), Goal(TOOL, (FEED,), 1, LATEST),
             Goal(FEED, (MULTICAT,), 0.55)])
    for form, way in (("rtp", "spread"), ("rtp", "bursts"), ("raw", "spread")):
        who = [one for one in them.receivers(Load(form=form)) if one.name != DRAIN]
        goals = [Goal(TOOL, (MULTICAT,), 0.4), Goal(TOOL, (), 64 + 16, RESIDENT),
                 Goal(BLOCKING, (MULTICAT,), 0.9)]
        if way == "bursts":
            goals += [Goal(POLL_1, (BARE,), 1.3), Goal(POLL_10, (BARE,), 0.8)]
        if form == "raw":
            who = only(who, BARE, BLOCKING, TOOL, MULTICAT)
        yield Section(
            f"receive-{form}-{way}", f"Receiving 16 x 8 Mbit/s, {form}, {WAYS[way]}", who,
            receiving(bench, way, seconds, False),
            goals)


def pinned(bench: Bench, them: Contenders, seconds: float) -> Iterator[Section]:
    """The measured side and the traffic have processors of their own."""
    for way, words in WAYS.items():
        yield Section(
            f"pinned-receive-{way}", f"Receiving 16 x 8 Mbit/s, rtp, {words}, pinned",
            only(them.receivers(Load()), BARE, DRAIN, POLL_1, POLL_10, MULTICAT, GSTREAMER),
            receiving(bench, way, seconds, True),
            [Goal(POLL_1, (BARE,), 1.3), Goal(POLL_10, (BARE,), 1.3),
             Goal(POLL_1, ALL_PEERS, 0.4)])
    yield Section(
        "pinned-send", "Sending 16 x 8 Mbit/s, rtp, pinned",
        only(them.senders(Load()), BARE, FEED, MULTICAT),
        sending(bench, seconds, True),
        [Goal(FEED, (MULTICAT,), 0.6), Goal(FEED, (), 0.55, "late p50 ms"),
         Goal(FEED, (), 1.1, "late p99 ms")])
    yield Section(
        "pinned-send-long", f"Sending 16 x 8 Mbit/s, rtp, pinned, for {LONG_S:.0f} s",
        only(them.senders(Load()), FEED),
        sending(bench, LONG_S, True),
        [Goal(FEED, (), 5, "rate ppm")], rounds=1)


def limits(bench: Bench, them: Contenders, seconds: float) -> Iterator[Section]:
    """How fast it can be, pinned as well."""
    for channels in (1, 16):
        for routine, what in (("trains", "trains of 16 datagrams"),
                              ("singles", "single datagrams")):
            yield Section(
                f"capacity-{channels}-{routine}",
                f"Highest rate without loss, channels: {channels}, {what}, pinned",
                only(them.receivers(Load(channels)), BARE, POLL_1),
                capacity(bench, routine, min(seconds, 0.8)),
                [Goal(POLL_1, (BARE,), 1, "Mbit/s", at_least=True)], rounds=1)
    yield Section(
        "unpaced", "One channel that is far behind its schedule, pinned",
        [them.bare("unpaced", Load(1)), *them.host("host", "unpaced", 4_000_000_000, Load(1))],
        lambda one: bench.unpaced(one.commands, min(seconds, 1.5)),
        [Goal("host", (BARE,), 0.9, "datagrams/s", at_least=True)])


def library(bench: Bench, them: Contenders, seconds: float) -> Iterator[Section]:
    """The ring on its own; the module at rest; its load."""

    def blocks(one: Contender) -> Values:
        results = json.loads(subprocess.check_output(one.commands[0], timeout=60))["benchmarks"]
        return {
            f"{int(result['name'].split('/')[1]) >> 10} KiB, blocks/s": result["items_per_second"]
            for result in results
        }

    yield Section(
        "ring", "Blocks of 1316 bytes from thread to thread",
        [Contender(name, Load(), [[f"{them.builds[0]}/bin/classes_bench",
                                   f"--benchmark_filter=TwoThreads<{queue}>",
                                   "--benchmark_format=json",
                                   f"--benchmark_min_time={seconds / 10}"]])
         for queue, name in (("Ring", "ring"), ("Memcpy", "memcpy"), ("BoostBlocks", "Boost"))],
        blocks,
        [Goal("ring", (other,), limit, f"{size} KiB, blocks/s", at_least=True)
         for other, limit in (("memcpy", 0.9), ("Boost", 1.0)) for size in (256, 4096)])
    yield Section(
        "rest", "Started channels without traffic",
        [*them.host("no channels", "idle-receive", 0, Load(0)),
         *them.host("16 send channels", "idle-send", Load().rate_bps, Load()),
         *them.host("16 receive channels", "idle-receive", 0, Load())],
        lambda one: bench.resting(one.commands, seconds), rounds=1)
    code = ("import ctypes, sys, time; ctypes.CDLL('libstdc++.so.6'); begin = time.monotonic(); "
            "assert ctypes.CDLL(sys.argv[1]).QXV_RTP_Create(0); "
            "print((time.monotonic() - begin) * 1000)")
    file = f"{them.builds[0]}/lib/libQXV_RTP.so"
    yield Section(
        "load", "From loading the library to the first handle",
        [Contender("dlopen", Load(), [[sys.executable, "-c", code, file]])],
        lambda one: {"ms": float(subprocess.check_output(one.commands[0], timeout=20))}, rounds=21)


def growth(bench: Bench, them: Contenders, seconds: float) -> Iterator[Section]:
    """Left out unless it is named."""
    loads = [Load(n) for n in (1, 4, 16)] + [Load(rate_bps=n * 10**6) for n in (2, 20, 100)]

    def named(contenders: list[Contender]) -> list[Contender]:
        for one in contenders:
            one.name += f", {one.load.channels} x {one.load.rate_bps // 10**6} Mbit/s"
        return contenders

    yield Section(
        "growth-receive", "Receiving by channels and by rate, rtp, bursts, pinned",
        [one for load in loads for one in named(only(them.receivers(load), BARE, POLL_1))],
        receiving(bench, "bursts", seconds, True), rounds=1)
    yield Section(
        "growth-send", "Sending by channels and by rate, rtp, pinned",
        [one for load in loads for one in named(only(them.senders(load), BARE, FEED))],
        sending(bench, seconds, True), rounds=1)


def all_sections(bench: Bench, them: Contenders, seconds: float) -> list[Section]:
    parts = (deployed, pinned, limits, library, growth)
    return [section for part in parts for section in part(bench, them, seconds)]
