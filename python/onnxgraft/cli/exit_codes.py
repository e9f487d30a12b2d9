"""The exit codes of the command line. docs/reference/exit-codes.md explains each one."""

from __future__ import annotations

from enum import IntEnum


class ExitCode(IntEnum):
    """One code for each outcome that a script may want to distinguish."""

    DONE = 0
    FAILED = 1
    WRONG_USAGE = 2
    DIFFERENT = 3
    UNCHANGED = 4
    LEFT_OUT = 5
    NOT_SHOWN = 6
    NOT_COMPARED = 7
    HUNG_UP = 129
    INTERRUPTED = 130
    BROKEN_PIPE = 141
    TERMINATED = 143
