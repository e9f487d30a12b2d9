"""Standard output and standard error: writing to them never ends a command, even if it fails.

A stream that accepts no more text is abandoned quietly; `lost` returns the reason afterwards.
"""

from __future__ import annotations

import codecs
import os
import sys
from contextlib import suppress
from typing import Any, TextIO

_ASCII = str.maketrans(
    dict.fromkeys("─═━╌", "-")
    | dict.fromkeys("│║┃╎", "|")
    | dict.fromkeys("┌┐└┘├┤┬┴┼╔╗╚╝┏┓┗┛", "+")
    | {"…": "...", "·": "-", "→": "->", "▼": "v", "▲": "^"}
)

_lost: OSError | None = None


def begin() -> None:
    """Prepares both streams for any text."""
    global _lost  # noqa: PLW0603
    _lost = None
    codecs.register_error("onnxgraft", _approximate)
    streams: list[Any] = [sys.stdout, sys.stderr]
    for stream in streams:
        with suppress(AttributeError, ValueError):  # no stream, or one of another kind
            stream.reconfigure(errors="onnxgraft")


def lost() -> OSError | None:
    """Why standard output failed; None if it accepted everything."""
    return _lost


def write(text: str) -> None:
    """Writes a text and a line break to standard output."""
    global _lost  # noqa: PLW0603
    if _lost is None:
        _lost = OSError("it is closed") if sys.stdout is None else _write(sys.stdout, text)


def write_error(text: str) -> None:
    """Writes a text and a line break to standard error."""
    if sys.stderr is not None:
        _write(sys.stderr, text)


def flush() -> None:
    """Flushes standard output."""
    global _lost  # noqa: PLW0603
    if _lost is None and sys.stdout is not None:
        try:
            sys.stdout.flush()
        except OSError as error:
            _lost = error
            _give_up(sys.stdout)


def _write(stream: TextIO, text: str) -> OSError | None:
    try:
        print(text, file=stream, flush=True)
    except OSError as error:
        _give_up(stream)
        return error
    return None


def _give_up(stream: TextIO) -> None:
    """Redirects the stream to nothing: its buffered text must not fail once more at exit."""
    with suppress(OSError, ValueError), open(os.devnull, "wb") as nowhere:  # noqa: PTH123
        os.dup2(nowhere.fileno(), stream.fileno())


def _approximate(error: UnicodeError) -> tuple[str | bytes, int]:
    """Characters that the encoding does not have: frames and arrows in ASCII, others by number."""
    if not isinstance(error, UnicodeEncodeError):
        raise error
    text = error.object[error.start : error.end].translate(_ASCII)
    return text.encode("ascii", "backslashreplace").decode(), error.end
