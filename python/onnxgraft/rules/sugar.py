"""Shorthand in rule files: `A|B` for either operator, and both orders of commutative ones."""

from __future__ import annotations

import itertools
from collections.abc import Sequence

# Operators of two inputs whose order does not change the result.
COMMUTATIVE = frozenset({"Add", "Mul", "Max", "Min", "Sum", "Mean", "And", "Or", "Xor", "Equal"})


def expanded(pattern: Sequence[str], *, commutative: bool) -> list[tuple[str, ...]]:
    """The patterns that one expands to, each once. The last string varies fastest, the written order comes first."""
    choices = [_choices(text, commutative=commutative) for text in pattern]
    return list(dict.fromkeys(itertools.product(*choices)))


def _choices(text: str, *, commutative: bool) -> list[str]:
    head, colon, links = text.partition(":")
    result = []
    for op in head.split("|"):
        result.append(f"{op}{colon}{links}")
        inputs, arrow, output = links.partition("->")
        if commutative and op in COMMUTATIVE and inputs.count(",") == 1 and "~i" not in inputs:
            swapped = ",".join(reversed(inputs.split(",")))
            result.append(f"{op}:{swapped}{arrow}{output}")
    return result
