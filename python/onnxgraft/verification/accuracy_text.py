"""An accuracy as tables of text."""

from __future__ import annotations

from collections.abc import Iterable, Sequence

from onnxgraft.text_table import fitted, table
from onnxgraft.verification.accuracy import Accuracy, TensorAccuracy, decibels


def accuracy_text(accuracy: Accuracy) -> str:
    """Tables of the measurements, then notes and the verdict."""
    lines = []
    for title, headings, rows in sections(accuracy):
        numbers = range(2, len(headings))
        lines += [title, table(headings, list(rows), names=(0, 1), numbers=numbers), ""]
    if accuracy.skipped:
        names = ", ".join(f"'{name}'" for name in accuracy.skipped[:3])
        more = f" and {len(accuracy.skipped) - 3} more" if len(accuracy.skipped) > 3 else ""
        lines.append(f"note: not compared, since another kind of operator writes them: {names}{more}")
    lines += [f"note: {note}" for note in accuracy.notes]
    lines.append(f"{accuracy.verdict} (run by {accuracy.runner})")
    return fitted("\n".join(lines))


Section = tuple[str, Sequence[str], Iterable[Sequence[str]]]


def sections(accuracy: Accuracy) -> Iterable[Section]:
    """Title, headings and rows of each table that has rows; the first two columns are names."""
    yield "Outputs", _TENSOR, map(_tensor_row, accuracy.outputs)
    if accuracy.tensors:
        yield "Tensors, in the order of computation", _TENSOR, map(_tensor_row, accuracy.tensors)
    if accuracy.quantize_nodes:
        rows = [
            (node.name, node.tensor, f"{node.scale:.6g}", f"{node.offset:g}", f"{node.saturated:.2%}")
            for node in accuracy.quantize_nodes
        ]
        yield "Quantize nodes", ("Node", "Reads", "Scale", "Offset", "Cut off"), rows
    if accuracy.sums:
        sums = [(one.name, one.tensor, f"{one.largest:.6g}", str(one.bits)) for one in accuracy.sums]
        yield "Sums", ("Operator", "Writes", "Largest", "Bits"), sums
    if accuracy.sensitivities:
        costs = [(one.name, one.tensor, decibels(one.sqnr)) for one in accuracy.sensitivities]
        yield "Each operator quantized alone", ("Operator", "Writes", "Worst output"), costs


_TENSOR = ("Tensor", "Written by", "SQNR", "Difference", "Scale")


def _tensor_row(row: TensorAccuracy) -> Sequence[str]:
    return row.name, row.writer, decibels(row.sqnr), f"{row.max_error:.3g}", f"{row.scale:.3g}"
