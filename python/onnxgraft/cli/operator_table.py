"""The table at the end of `apply`: operators of the model before and after."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable
from pathlib import Path

import onnx
from rich.filesize import decimal

from onnxgraft.io.external_data import data_files_of
from onnxgraft.text_table import table

_MOST = 12  # operators listed, those whose number changed most


def size_of(path: Path, model: onnx.ModelProto) -> int:
    """The bytes of a model's file and its data files."""
    files: Iterable[Path] = (path, *data_files_of(model, path.parent))
    return sum(file.stat().st_size for file in files if file.is_file())


def operators_of(model: onnx.ModelProto) -> Counter[str]:
    """The number of nodes of each operator."""
    return Counter(node.op_type for node in model.graph.node)


def operator_table(before: Counter[str], after: Counter[str], sizes: tuple[int, int] | None) -> str:
    """The operators whose number changed, then all nodes and the size of the files.

    Args:
        before: Nodes by operator.
        after: The same of the result.
        sizes: Bytes before and after; None if nothing was written.
    """
    changes = {op: after[op] - before[op] for op in before | after}
    changed = sorted((op for op in changes if changes[op]), key=lambda op: (-abs(changes[op]), op))
    rows = [(op, str(before[op]), str(after[op]), f"{changes[op]:+d}") for op in changed[:_MOST]]
    others = changed[_MOST:]
    for title, listed in (("other changed operators", others), ("unchanged operators", changes.keys() - changed)):
        if listed:
            counts = [sum(count[op] for op in listed) for count in (before, after)]
            rows.append(
                (title, str(counts[0]), str(counts[1]), f"{counts[1] - counts[0]:+d}" if title[0] == "o" else "")
            )
    total = before.total(), after.total()
    rows.append(("all nodes", str(total[0]), str(total[1]), f"{total[1] - total[0]:+d}"))
    if sizes is not None:
        rows.append(("size", decimal(sizes[0]), decimal(sizes[1]), f"{100 * (sizes[1] / max(1, sizes[0]) - 1):+.0f} %"))
    return table(("Operator", "Before", "After", "Change"), rows, numbers=(1, 2, 3))
