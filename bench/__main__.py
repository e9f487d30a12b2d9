"""`make bench`."""

from __future__ import annotations

from pathlib import Path

from bench import report
from bench.ratios import all_ratios

if __name__ == "__main__":
    measured = list(all_ratios())
    report.show(measured)
    report.write(measured, Path("build/bench.json"))
