"""Sections of the bench: what they compare, their goals, and the tables that show both."""

import os
import platform
import re
import subprocess
import sys
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median

from contenders import BARE, MULTICAT, Contender
from measure import COST, LATEST, LOST, Values


@dataclass
class Goal:
    """A number of a contender, or its ratio to the best of the references, and what it may be."""

    contender: str
    references: tuple[str, ...]
    limit: float
    column: str = COST
    at_least: bool = False


@dataclass
class Section:
    name: str
    title: str
    contenders: list[Contender]
    measure: Callable[[Contender], Values]
    goals: list[Goal] = field(default_factory=list)
    rounds: int = 0  # 0: as many as are asked for


def measure(section: Section, rounds: int) -> None:
    """All contenders in turn, and every other time in reverse; one that fails is left out."""
    failed: set[str] = set()
    for number in range(section.rounds or rounds):
        for contender in section.contenders[:: -1 if number % 2 else 1]:
            if str(contender) in failed:
                continue
            try:
                contender.rounds.append(section.measure(contender))
            except (OSError, RuntimeError, ValueError, subprocess.SubprocessError) as error:
                print(f"{section.name}: {contender}: {error}; left out", file=sys.stderr)
                failed.add(str(contender))
                contender.rounds.clear()
    section.contenders = [one for one in section.contenders if one.rounds]


def ratios(contender: Contender, references: list[Contender], column: str) -> list[float]:
    """Within each round, to the best reference: to the one with the lowest median."""
    best = min(references, key=lambda one: median(values[column] for values in one.rounds))
    both = zip(contender.rounds, best.rounds)
    return [one[column] / other[column] for one, other in both if other[column]]


def number(value: float) -> str:
    return f"{value:.{0 if abs(value) >= 1000 or value == int(value) else 2}f}"


def spread(values: list[float]) -> str:
    """The median; with several rounds also the lowest and the highest."""
    middle = number(median(values))
    return middle if len(values) < 2 else f"{middle} ({number(min(values))}..{number(max(values))})"


class Report:
    """Prints tables as it gets them, which are markdown, too, and keeps them."""

    def __init__(self) -> None:
        self.text = ""
        self.goals: list[list[str]] = []
        self.numbers: dict[str, object] = {}
        model = re.search("model name.*: (.*)", Path("/proc/cpuinfo").read_text())
        self.write(f"{os.cpu_count()} x {model[1] if model else platform.machine()}, kernel "
                   f"{platform.release()}, load before {os.getloadavg()[0]:.1f}")

    def write(self, text: str) -> None:
        print(text, flush=True)
        self.text += text + "\n"

    def table(self, rows: list[list[str]]) -> None:
        widths = [max(map(len, column)) for column in zip(*rows)]
        cells = [[row[0].ljust(widths[0]), *map(str.rjust, row[1:], widths[1:])] for row in rows]
        cells.insert(1, ["-" * (n - 1) + ("-" if i == 0 else ":") for i, n in enumerate(widths)])
        self.write("\n".join(f"| {' | '.join(row)} |" for row in cells))

    def section(self, section: Section) -> None:
        self.write(f"\n### {section.title}\n")
        if not section.contenders:
            return self.write("nothing could be measured")
        self.numbers[section.name] = {str(one): one.rounds for one in section.contenders}
        columns = list(section.contenders[0].rounds[0])
        main = columns[0]
        references = [one for one in section.contenders if one.name in (BARE, MULTICAT)]
        rows = [["", main, *(f"x {one.name}" for one in references), *columns[1:]]]
        for one in section.contenders:
            against = [number(median(ratios(one, [other], main) or [0])) for other in references]
            row = [str(one), spread([values[main] for values in one.rounds]), *against]
            for column in columns[1:]:
                values = [values[column] for values in one.rounds]
                # Of what was lost, and of the latest datagram, the worst counts.
                shown = max(values) if column in (LOST, LATEST) else median(values)
                row.append(number(shown))
            rows.append(row)
        self.table(rows)
        for goal in section.goals:
            self.verdict(section, goal)
        self.compare_builds(section, main)

    def verdict(self, section: Section, goal: Goal) -> None:
        references = [other for other in section.contenders if other.name in goal.references]
        if goal.references and not references:
            return
        for one in section.contenders:
            if one.name != goal.contender:
                continue
            if references:
                values = ratios(one, references, goal.column)
            else:
                values = [values[goal.column] for values in one.rounds]
            good = median(values) >= goal.limit if goal.at_least else median(values) <= goal.limit
            what = goal.column + (f" / {' or '.join(map(str, references))}" if references else "")
            bound = f"{'>=' if goal.at_least else '<='} {goal.limit:g}"
            self.goals.append([section.name, str(one), what, spread(values), bound,
                               "met" if good else "NOT met"])

    def compare_builds(self, section: Section, column: str) -> None:
        first: dict[str, Contender] = {}
        for one in section.contenders:
            base = first.setdefault(one.name, one)
            if base is not one:
                self.write(f"{one} / {base}: {spread(ratios(one, [base], column))}")

    def end(self) -> None:
        self.write("\n### Goals\n")
        heads = ["section", "contender", "", "measured", "goal", "verdict"]
        if self.goals:
            self.table([heads, *self.goals])
