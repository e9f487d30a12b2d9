"""The result of `inspect`, as data; printed, it fits a screen of 80 columns."""

from __future__ import annotations

import dataclasses
from dataclasses import dataclass, field
from typing import Any

from rich.filesize import decimal

from onnxgraft.inspection.ranking import RecipeScore
from onnxgraft.report.account_records import Account, OperatorCount
from onnxgraft.texts import one_line, preformatted

WIDTH = 80
_QUANTIZE, _DEQUANTIZE = "TesselQuant", "TesselDequant"
_MOST_OPERATORS = 14


@dataclass
class Inspection:
    """A model at a glance."""

    name: str
    producer: str
    ir_version: int
    opsets: dict[str, int]  # by domain
    inputs: dict[str, str]  # name -> "float32[1,3,224,224]"
    outputs: dict[str, str]
    nodes: int
    operators: dict[str, int]  # the most frequent first
    account: Account
    weights: int
    weight_bytes: int
    file_bytes: int  # of the model and its data files; 0 for a model that is not a file
    recipes: list[RecipeScore] = field(default_factory=list)  # those that replace something, the best first

    @property
    def quantize_nodes(self) -> int:
        """How many quantize nodes there are."""
        return self.operators.get(_QUANTIZE, 0)

    def to_dict(self) -> dict[str, Any]:
        """As plain dicts, lists, strings and numbers."""
        plain = dataclasses.asdict(self)
        return plain | {"quantize_nodes": self.quantize_nodes, "int8_share": self.account.share}

    def beside(self, after: Inspection) -> str:
        """Both models side by side, as text."""
        return "\n".join(_side_by_side(_rows(self), _rows(after)))

    def __str__(self) -> str:
        lines = [f"{key:<14}{value}" for key, value in _rows(self)]
        return "\n".join(wrapped for line in lines for wrapped in _wrapped(line))

    def __repr__(self) -> str:
        return f"<Inspection of '{one_line(self.name)}': {self.nodes} nodes, {self.account}>"

    def _repr_html_(self) -> str:
        return preformatted(str(self))


def _rows(one: Inspection) -> list[tuple[str, str]]:
    rows = [
        ("model", one_line(one.name)),
        ("producer", one_line(one.producer) or "not stated"),
        ("IR, opsets", f"{one.ir_version}; " + ", ".join(f"{name} {version}" for name, version in one.opsets.items())),
        *(("input", one_line(f"{name}  {kind}")) for name, kind in one.inputs.items()),
        *(("output", one_line(f"{name}  {kind}")) for name, kind in one.outputs.items()),
        ("weights", f"{one.weights} tensors, {decimal(one.weight_bytes)}"),
    ]
    if one.file_bytes:
        rows.append(("file", decimal(one.file_bytes)))
    shown = list(one.operators.items())[:_MOST_OPERATORS]
    rest = sum(list(one.operators.values())[_MOST_OPERATORS:])
    listed = ", ".join(f"{count} {one_line(op)}" for op, count in shown) + (f", {rest} others" if rest else "")
    rows.append(("nodes", f"{one.nodes}: {listed}"))
    rows += [(op, _coverage(count)) for op, count in one.account.operators.items()]
    rows.append(("quantize", f"{one.quantize_nodes} nodes, {one.operators.get(_DEQUANTIZE, 0)} dequantize nodes"))
    for place, score in enumerate(one.recipes[:3]):
        share = "" if score.share is None else f", {100 * score.share:.1f} % of the multiply-adds INT8"
        rows.append(("recipes" if not place else "", f"{score.name}: {score.replaced} replaced{share}"))
    return rows


def _coverage(count: OperatorCount) -> str:
    total = count.int8_macs + count.float_macs
    macs = f", {_large(total)} multiply-adds" if total else ""
    share = f" ({100 * count.int8_macs / total:.1f} % INT8)" if total else ""
    unknown = f", {count.unknown_macs} of unknown shape" if count.unknown_macs else ""
    size = decimal(count.int8_bytes + count.float_bytes)
    return f"{count.int8} INT8, {count.float} float{macs}{share}{unknown}, {size} of weights"


def _large(number: int) -> str:
    for unit, size in (("G", 10**9), ("M", 10**6), ("k", 10**3)):
        if number >= size:
            return f"{number / size:.1f} {unit}"
    return str(number)


def _wrapped(line: str) -> list[str]:
    """Lines of at most the width of the screen; names that users have to type are never broken."""
    result, rest = [], line
    while len(rest) > WIDTH:
        cut = rest.rfind(" ", 15, WIDTH + 1)
        if cut < 0:
            break
        result.append(rest[:cut].rstrip())
        rest = " " * 14 + rest[cut + 1 :]
    return [*result, rest]


def _side_by_side(before: list[tuple[str, str]], after: list[tuple[str, str]]) -> list[str]:
    """Equal facts once, different ones in two lines marked - and +."""
    lines = []
    old, new = dict(before), dict(after)
    for key in dict.fromkeys([*old, *new]):
        olds = [value for name, value in before if name == key]
        news = [value for name, value in after if name == key]
        if olds == news:
            lines += [f"  {key:<14}{value}" for value in olds]
        else:
            lines += [f"- {key:<14}{value}" for value in olds] + [f"+ {key:<14}{value}" for value in news]
    return [wrapped for line in lines for wrapped in _wrapped(line)]
