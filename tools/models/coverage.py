"""How much of a model computes on INT8 after its recipe, and why the other operators do not."""

from __future__ import annotations

from collections import Counter
from pathlib import Path
from typing import Any

import onnx

from onnxgraft.engine import rewrite
from tools.models.families import network_of

Row = dict[str, Any]


def coverage(path: Path) -> Row:
    """By operator the nodes on INT8 and of all; the share of multiply-adds; by operator and reason those in float."""
    report = rewrite(onnx.load(path), network_of(path.stem).recipe, seed=0, on_error="continue", details="counts")
    account = report.account
    if account is None:
        raise RuntimeError(f"{path}: the run has no account")
    left = Counter(f"{one.op_type}: {one.reason}" + (" (nested)" if one.place else "") for one in account.left)
    return {
        "operators": {op: [one.int8, one.int8 + one.float] for op, one in account.operators.items()},
        "share": None if account.share is None else round(account.share, 5),
        "unknown": sum(one.unknown_macs for one in account.operators.values()),
        "left": dict(sorted(left.items())),
    }


def coverage_table(rows: dict[str, Row]) -> str:
    """One line per model; models that were counted before this table existed have none."""
    lines = ["| Model | On INT8 | Multiply-adds | In float, and why |", "|---|---|--:|---|"]
    for model, row in rows.items():
        if found := row.get("coverage"):
            operators = ", ".join(f"{int8} of {of} `{op}`" for op, (int8, of) in found["operators"].items())
            share = "" if found["share"] is None else f"{100 * found['share']:.1f} %"
            share += f" ({found['unknown']} of unknown shape)" if found["unknown"] else ""
            left = ", ".join(f"{count} `{op}` {_WORDS[reason]}" for (op, reason), count in _split(found["left"]))
            lines.append(f"| `{model}` | {operators} | {share} | {left} |")
    return "\n".join(lines) + "\n"


def _split(left: dict[str, int]) -> list[tuple[tuple[str, str], int]]:
    return [
        ((op, reason.partition(" (")[0]), count)
        for key, count in left.items()
        for op, _, reason in [key.partition(": ")]
    ]


_WORDS = {
    "both_computed": "with two computed operands",
    "computed_bias": "with a computed bias",
    "computed_weight": "with a computed weight",
    "element_type": "with a weight of another type",
    "excluded": "excluded",
    "form": "of another form",
    "function": "in a function",
    "nested_body": "in a nested graph",
    "not_run": "that the recipe leaves",
    "other_domain": "of another domain",
    "refused": "refused",
    "turned_back": "that `change_gap_conv` made float again",
    "unsupported": "that no transformation quantizes",
    "weight_first": "with the weight first",
}
