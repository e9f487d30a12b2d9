"""What can be wrong about a request to prepare."""

from __future__ import annotations

from collections.abc import Sequence

from onnxgraft.errors import UnknownNameError


class PreparationError(UnknownNameError):
    """A step name that no step has."""

    def __init__(self, name: str, similar: Sequence[str], known: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else f"the steps are {', '.join(known)}"
        super().__init__(f"unknown preparation step '{name}': {hint}")
