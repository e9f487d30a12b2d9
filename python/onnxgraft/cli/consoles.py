"""Where results and progress are shown."""

from __future__ import annotations

import sys

from rich.console import Console

# Tables in a pipe or a file are as wide as they need, not cut to a terminal that is not there.
_FILE_WIDTH = 200


def results() -> Console:
    """Standard output: what the user asked for."""
    return Console(markup=False, highlight=False, emoji=False, width=None if sys.stdout.isatty() else _FILE_WIDTH)


def notices() -> Console:
    """Standard error: progress, shown on a terminal only."""
    return Console(stderr=True, markup=False, highlight=False, emoji=False)
