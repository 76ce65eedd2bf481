#!/usr/bin/env python3
"""Measures the tool and hosts of the module beside bare loops and other programs, in one run.

Every contender is a command line. All contenders of a section are measured once in turn, then once
more in reverse, and so on; tables show medians, and ratios are medians of those within the rounds.
docs/performance.md says what each section and each column means.
"""

import argparse
import json
import os
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

from contenders import BARE, MULTICAT, PEERS, Contenders
from measure import Bench
from report import Report, measure
from sections import all_sections
from stream import Load, write_stream

ROOT = Path(__file__).resolve().parent.parent


def has_own_network() -> bool:
    """The ports are fixed: nobody else may be here, and nothing may leave the machine."""
    links = subprocess.check_output(["ip", "-brief", "link", "show", "up"], text=True)
    return [line.split()[0] for line in links.splitlines()] == ["lo"]


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("section", nargs="*", help="begins of names; without one all but growth are measured")
    add("--list", action="store_true", help="print the names of all sections")
    add("--quick", action="store_true", help="one round of send and receive, beside multicat only")
    add("--rounds", type=int, help="rounds of all contenders in turn (2; with --quick 1)")
    add("--seconds", type=float, default=2.0, help="of one measurement (2)")
    add("--only", metavar="TEXT", help=f"contenders with this in their name, {BARE}, {MULTICAT}")
    add("--build", action="append", type=lambda text: Path(text).absolute(), metavar="FOLDER",
        help="made with QXV_BUILD_BENCH; several are compared (build-bench)")
    add("--output", type=Path, metavar="FOLDER", help="for bench.md and bench.json")
    options = parser.parse_args()
    options.rounds = options.rounds or (1 if options.quick else 2)
    options.build = options.build or [ROOT / "build-bench"]
    options.section = options.section or (["send", "receive"] if options.quick else [])
    return options


def bench(options: argparse.Namespace, folder: Path) -> None:
    file = folder / "stream.ts"
    write_stream(file, Load(), options.seconds + 12)
    driver = Bench(options.build[0] / "bin/traffic", folder, 0.3 if options.quick else 0.6)
    peers = [MULTICAT] if options.quick else list(PEERS)
    them = Contenders(driver, options.build, file, peers)
    sections = all_sections(driver, them, options.seconds)
    if options.list:
        return print("\n".join(section.name for section in sections))
    for name in options.section:
        if not any(section.name.startswith(name) for section in sections):
            raise SystemExit(f"bench.py: there is no section {name}; see --list")
    report = Report()
    missing = set(peers) - set(them.peers)
    report.write(f"not installed: {', '.join(missing)}" if missing else "all peers are installed")
    for section in sections:
        chosen = section.name.startswith(tuple(options.section) or "")
        if not chosen or (section.name.startswith("growth") and not options.section):
            continue
        if options.only:
            section.contenders = [one for one in section.contenders
                                  if options.only in one.name or one.name in (BARE, MULTICAT)]
        measure(section, options.rounds)
        report.section(section)
    report.end()
    if options.output:
        options.output.mkdir(parents=True, exist_ok=True)
        (options.output / "bench.md").write_text(report.text)
        (options.output / "bench.json").write_text(json.dumps(report.numbers, indent=1) + "\n")


def main() -> None:
    options = parse()
    if not options.list and not has_own_network():
        if os.environ.get("QXV_BENCH_AGAIN"):
            raise SystemExit("bench.py: this needs a network of its own")
        os.environ["QXV_BENCH_AGAIN"] = "1"
        isolate = str(ROOT / "scripts/isolate.sh")
        os.execv(isolate, [isolate, sys.executable, str(Path(__file__).resolve()), *sys.argv[1:]])
    # So that the folder is removed, and all processes end.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory() as folder:
        bench(options, Path(folder))


if __name__ == "__main__":
    main()
