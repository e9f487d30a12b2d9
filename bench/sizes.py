"""The sizes of the work: as published, or tiny, to check that the program runs."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass(frozen=True)
class Sizes:
    """Numbers of occurrences, and how long a measurement may take."""

    chains: tuple[int, int, int] = (1_000, 10_000, 100_000)
    resnet_width: int = 64
    bert_layers: int = 12
    per_transformation: tuple[int, int] = (1_000, 10_000)
    looks: int = 400
    without: int = 30_000  # nodes of a graph without occurrences
    subclass: int = 4_000
    details: int = 3_000
    processes: int = 10
    rounds: int = 7
    patience: float = 15.0  # seconds; no further round starts after that
    longest: float = 30.0  # seconds; longer work is not started


TINY = Sizes(
    chains=(5, 10, 20),
    resnet_width=4,
    bert_layers=1,
    per_transformation=(3, 6),
    looks=4,
    without=50,
    subclass=5,
    details=5,
    processes=1,
    rounds=1,
)
