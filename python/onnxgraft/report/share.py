"""Which cards a page shows when there are too many."""

from __future__ import annotations

from collections.abc import Sequence


def fair_shares(counts: Sequence[int], most: int) -> list[int]:
    """How many of each group, at most `most` together: small groups whole, large ones equally many."""
    shares = [0] * len(counts)
    left = most
    order = sorted(range(len(counts)), key=lambda k: counts[k])
    for place, k in enumerate(order):
        shares[k] = min(counts[k], left // (len(order) - place))
        left -= shares[k]
    return shares
