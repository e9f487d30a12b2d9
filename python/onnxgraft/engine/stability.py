"""Detects when running a list of transformations repeatedly has reached its end, or never will."""

from __future__ import annotations

from dataclasses import dataclass, field


@dataclass(frozen=True)
class _Change:
    """A step that changed the graph."""

    transformation: str
    before: int  # fingerprints
    after: int


@dataclass
class Stability:
    """Follows the graph's fingerprint from step to step."""

    fingerprint: int  # of the graph as it is now
    _round_ends: list[int] = field(default_factory=list)
    _rounds: list[list[_Change]] = field(default_factory=list)

    def begin_round(self) -> None:
        """A new round of all transformations starts."""
        self._round_ends.append(self.fingerprint)
        self._rounds.append([])

    def note(self, transformation: str, fingerprint: int) -> None:
        """The transformation has run; the graph has this fingerprint now."""
        if fingerprint != self.fingerprint:
            self._rounds[-1].append(_Change(transformation, self.fingerprint, fingerprint))
            self.fingerprint = fingerprint

    @property
    def is_stable(self) -> bool:
        """No step of the round that ended has changed the graph."""
        return not self._rounds[-1]

    def returning(self) -> tuple[str, str] | None:
        """Two transformations that undo each other, if the round ended with a graph that an earlier round started with.

        The second restores a graph that the first had changed. If one transformation alone goes back and forth, both
        are the same.
        """
        if self.is_stable or self.fingerprint not in self._round_ends:
            return None
        first = self._round_ends.index(self.fingerprint)
        cycle = [change for changes in self._rounds[first:] for change in changes]
        pairs = [
            (end - start, cycle[start].transformation, cycle[end].transformation)
            for end in range(len(cycle))
            for start in range(end)
            if cycle[start].before == cycle[end].after
        ]
        return min(pairs)[1:] if pairs else None

    def last_changing(self) -> list[str]:
        """The transformations that changed the graph in the round that ended, each once."""
        return list(dict.fromkeys(change.transformation for change in self._rounds[-1]))
