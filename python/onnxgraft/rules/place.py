"""A position in a rule file, and the errors that name it."""

from __future__ import annotations

import difflib
from collections.abc import Collection, Mapping
from dataclasses import dataclass
from typing import Any, NoReturn

from onnxgraft.errors import HostError


class RuleFileError(HostError):
    """A rule file that cannot be read, or that contains something that is not a rule."""


@dataclass(frozen=True)
class Place:
    """A key of a rule; `error` raises with file, rule and key."""

    file: str
    rule: str
    key: str = ""

    def at(self, key: object) -> Place:
        """A key inside this one."""
        return Place(self.file, self.rule, f"{self.key}.{key}" if self.key else str(key))

    def error(self, message: str) -> NoReturn:
        """Raises RuleFileError."""
        key = f", key '{self.key}'" if self.key else ""
        raise RuleFileError(f"'{self.file}', rule '{self.rule}'{key}: {message}")

    def table(self, value: Any) -> Mapping[str, Any]:
        """A table."""
        if not isinstance(value, dict):
            self.error(f"expected a table, not {value!r}")
        return value

    def keys(self, table: Mapping[str, Any], known: Collection[str]) -> None:
        """Refuses unknown keys."""
        for key in table:
            if key not in known:
                similar = difflib.get_close_matches(key, known, n=1, cutoff=0.7)
                hint = f"did you mean '{similar[0]}'?" if similar else f"the keys are {', '.join(known)}"
                self.at(key).error(f"unknown key; {hint}")

    def typed(self, value: Any, kind: type | tuple[type, ...], wanted: str) -> Any:
        """A value of a type; true and false are not numbers."""
        if not isinstance(value, kind) or (isinstance(value, bool) and kind is not bool):
            self.error(f"expected {wanted}, not {value!r}")
        return value

    def texts(self, value: Any, wanted: str) -> tuple[str, ...]:
        """A list of texts."""
        if not isinstance(value, list) or not all(isinstance(item, str) for item in value):
            self.error(f"expected a list of {wanted}, not {value!r}")
        return tuple(value)
