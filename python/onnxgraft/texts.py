"""Prepares strings from models and users for display in one line."""

from __future__ import annotations

import re
from html import escape

# Characters that control a terminal, break a line, reverse its direction, have no width or cannot be encoded.
_UNSEEN = re.compile(
    "[\x00-\x1f\x7f-\x9f\xad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb\ud800-\udfff"
    "\U000e0000-\U000e007f]"
)


def one_line(text: object) -> str:
    r"""The text as one visible line, with control characters escaped as \x1b, \n and so on."""
    return _UNSEEN.sub(lambda found: found[0].encode("unicode_escape").decode(), str(text))


def joined(text: object) -> str:
    """The same, but lines of a longer text are joined by blanks."""
    return one_line(" ".join(str(text).splitlines()))


def preformatted(text: str) -> str:
    """Lines of text as HTML, for notebooks: the same text as on a terminal, without any markup in it."""
    return f"<pre>{escape(chr(10).join(map(one_line, text.splitlines())))}</pre>"
