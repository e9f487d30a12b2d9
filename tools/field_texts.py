"""The meaning of the fields of a dataclass, read from its docstring or from the comments next to and above them."""

from __future__ import annotations

import dataclasses
import inspect
import re
from typing import Any

_FIELD = re.compile(r"^    (\w+): [^#]*?(?:  # (.*))?$")
_COMMENT = re.compile(r"^    # (.*)$")
_ATTRIBUTE = re.compile(r"^    (\w+): (.*)$")


def field_texts(cls: type[Any]) -> dict[str, str]:
    """The meaning of each field; empty if nothing is written about it."""
    texts = dict.fromkeys((field.name for field in dataclasses.fields(cls)), "")
    texts |= _commented(inspect.getsource(cls), texts) | _documented(inspect.getdoc(cls) or "", texts)
    return {name: re.sub(r"\s+", " ", text).strip() for name, text in texts.items()}


def _commented(source: str, names: dict[str, str]) -> dict[str, str]:
    found, above = {}, ""
    for line in source.splitlines():
        comment, field = _COMMENT.match(line), _FIELD.match(line)
        if field and field[1] in names:
            found[field[1]] = field[2] or above
        above = f"{above} {comment[1]}" if comment else ""
    return found


def _documented(doc: str, names: dict[str, str]) -> dict[str, str]:
    found, current = {}, ""
    for line in doc.partition("Attributes:\n")[2].splitlines():
        start = _ATTRIBUTE.match(line)
        if start and start[1] in names:
            current = start[1]
            found[current] = start[2]
        elif current and line.startswith("        "):
            found[current] += " " + line.strip()
        else:
            current = ""
    return found
