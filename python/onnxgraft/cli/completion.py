"""Completions of a command line, for shells that ask (`argcomplete`, an extra of the package)."""

from __future__ import annotations

import argparse
import importlib
from collections.abc import Iterable

# Options and arguments whose values are names in the package, and the source of these names.
_NAMES = {
    "transformation": ("onnxgraft.catalogue", "rows"),
    "skip": ("onnxgraft.catalogue", "rows"),
    "name": ("onnxgraft.catalogue", "rows"),
    "recipe": ("onnxgraft.recipe_book", "recipes"),
    "step": ("onnxgraft.preparation", "STEPS"),
    "skip_step": ("onnxgraft.preparation", "STEPS"),
}


def answer(parser: argparse.ArgumentParser) -> None:
    """Answers the shell and ends the process; does nothing without argcomplete, or if no shell asks."""
    try:
        argcomplete = importlib.import_module("argcomplete")
    except ImportError:
        return
    for action in _actions(parser):
        if action.dest in _NAMES and action.choices is None:
            vars(action)["completer"] = _Completer(*_NAMES[action.dest])
    argcomplete.autocomplete(parser)


class _Completer:
    """The names in a mapping, or in the result of a function; read only when they are needed."""

    def __init__(self, module: str, source: str) -> None:
        self._module, self._source = module, source

    def __call__(self, **_context: object) -> list[str]:
        found = getattr(importlib.import_module(self._module), self._source)
        return list(found() if callable(found) else found)


def _actions(parser: argparse.ArgumentParser) -> Iterable[argparse.Action]:
    for action in parser._actions:
        yield action
        if isinstance(action, argparse._SubParsersAction):
            for inner in action.choices.values():
                yield from _actions(inner)
