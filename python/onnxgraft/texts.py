"""Texts of models and users in lines for people."""

from __future__ import annotations

import re

# What a terminal obeys, what breaks a line, what reverses its direction, what has no width, what cannot be encoded.
_UNSEEN = re.compile(
    "[\x00-\x1f\x7f-\x9f\xad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb\ud800-\udfff"
    "\U000e0000-\U000e007f]"
)


def one_line(text: object) -> str:
    r"""The text as one visible line, whatever a name in it holds: control characters become \x1b, \n and so on."""
    return _UNSEEN.sub(lambda found: found[0].encode("unicode_escape").decode(), str(text))


def joined(text: object) -> str:
    """The same, but a text of several lines is joined by blanks."""
    return one_line(" ".join(str(text).splitlines()))
