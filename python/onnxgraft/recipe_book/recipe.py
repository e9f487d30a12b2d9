"""A recipe: what to run on a family of networks, and in which order."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass(frozen=True)
class Recipe:
    """One recipe; `transformations` are short names in the order in which they run."""

    name: str
    summary: str
    transformations: tuple[str, ...]
    prepare: tuple[str, ...] | None = None  # names of preparation steps; None: all of them
    until_stable: bool = True  # run the whole list again until the graph does not change any more
    source: str = ""  # the file that it comes from
