"""Run contenders in turn in one run and compare them by the medians of their times.

The benchmarks in this folder share this: every round runs each contender once, so that drifts of
the machine hit all alike, and figures are given as ratios to a reference contender.
"""

import os
import statistics
import sys
import time
from dataclasses import dataclass, field
from typing import Callable


@dataclass
class Contender:
    """One way of doing the work.

    run does it once. It may return a dict of extra figures (numbers), whose medians are reported.
    before is called ahead of each run and is not timed.
    """

    name: str
    run: Callable[[], dict | None]
    before: Callable[[], None] = lambda: None
    seconds: list = field(default_factory=list)
    extras: dict = field(default_factory=dict)


def compare(title, contenders, rounds=5, reference=None):
    """Run all contenders in turn, print a Markdown table, and return name -> ratio of medians."""
    reference = reference or contenders[0].name
    for round_number in range(1, rounds + 1):
        for contender in contenders:
            contender.before()
            if sys.stderr.isatty():
                print(f"\r{title}: round {round_number}/{rounds}, {contender.name:30}",
                      end="", file=sys.stderr)
            begin = time.monotonic()
            extras = contender.run() or {}
            contender.seconds.append(time.monotonic() - begin)
            for key, value in extras.items():
                contender.extras.setdefault(key, []).append(value)
    if sys.stderr.isatty():
        print(file=sys.stderr)
    return _report(title, contenders, rounds, reference)


def _report(title, contenders, rounds, reference):
    medians = {c.name: statistics.median(c.seconds) for c in contenders}
    extra_keys = list(dict.fromkeys(key for c in contenders for key in c.extras))
    print(f"\n### {title}\n")
    print(f"{rounds} rounds in turn, {os.cpu_count()} processors; "
          f"ratios of medians to `{reference}`.\n")
    print("| contender | median s | min s | max s | ratio |"
          + "".join(f" {key} |" for key in extra_keys))
    print("|---|---|---|---|---|" + "---|" * len(extra_keys))
    ratios = {}
    for c in contenders:
        ratios[c.name] = medians[c.name] / medians[reference]
        row = (f"| {c.name} | {medians[c.name]:.2f} | {min(c.seconds):.2f} | "
               f"{max(c.seconds):.2f} | {ratios[c.name]:.2f} |")
        for key in extra_keys:
            values = c.extras.get(key)
            row += f" {statistics.median(values):.4g} |" if values else " |"
        print(row)
    return ratios
