"""The benchmark's command line: runs groups, shows and keeps their results."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

from bench import report
from bench.figures import Figure, Results, machine
from bench.groups import GROUPS, load
from bench.peers import PACKAGES
from bench.sizes import TINY, Sizes


def main(arguments: list[str]) -> int:
    """Runs the command; returns the exit code."""
    parser = argparse.ArgumentParser(prog="bench", description="Measures speed as ratios within one run.")
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=f"{', '.join(GROUPS)}; all if none is given")
    parser.add_argument("--json", type=Path, default=Path("build/bench.json"), help="where to keep the results")
    parser.add_argument(
        "--tiny", action="store_true", help="tiny sizes, only to try the program; their figures mean nothing"
    )
    options = parser.parse_args(arguments)
    if unknown := set(options.groups) - GROUPS.keys():
        parser.error(f"unknown group {', '.join(sorted(unknown))}; the groups are {', '.join(GROUPS)}")
    results = run(options.groups or list(GROUPS), TINY if options.tiny else Sizes())
    report.show(results)
    results.write(options.json)
    return 0


def run(groups: list[str], sizes: Sizes) -> Results:
    """Measures group after group."""
    results = Results(facts={**machine(PACKAGES), "tiny": sizes is TINY})
    for name in groups:
        begin = time.monotonic()
        results.figures[name] = []
        for found in load(name)(sizes):
            if isinstance(found, Figure):
                results.figures[name].append(found)
            else:
                results.contests.append(found)
        print(f"{name}: {time.monotonic() - begin:.0f} s", file=sys.stderr)
    return results
