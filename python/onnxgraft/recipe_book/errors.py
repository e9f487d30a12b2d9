"""What can be wrong about recipes."""

from __future__ import annotations

from collections.abc import Sequence

from onnxgraft.errors import HostError, UnknownNameError


class RecipeFileError(HostError):
    """A recipe file that cannot be read, or says something that is no recipe."""


class UnknownRecipeError(UnknownNameError):
    """A name that no recipe has."""

    def __init__(self, name: str, similar: Sequence[str], known: Sequence[str]) -> None:
        hint = f"did you mean {' or '.join(similar)}?" if similar else f"the recipes are {', '.join(known)}"
        super().__init__(f"unknown recipe '{name}': {hint}")
