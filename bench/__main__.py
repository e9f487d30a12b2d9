"""`make bench`, or `make bench GROUP=transformations` for one group."""

from __future__ import annotations

import argparse
from pathlib import Path

from bench import report
from bench.ratios import pass_ratios
from bench.transformations import transformation_ratios

GROUPS = {"pass": pass_ratios, "transformations": transformation_ratios}

if __name__ == "__main__":
    parser = argparse.ArgumentParser(prog="bench", description="Measures speed as ratios of one run.")
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=f"one of {', '.join(GROUPS)}; all if none is given")
    groups = parser.parse_args().groups or list(GROUPS)
    if unknown := set(groups) - GROUPS.keys():
        parser.error(f"unknown group {', '.join(sorted(unknown))}; the groups are {', '.join(GROUPS)}")
    measured = [ratio for group in groups for ratio in GROUPS[group]()]
    report.show(measured)
    report.write(measured, Path("build/bench.json"))
