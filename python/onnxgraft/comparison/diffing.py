"""`diff`: matches the nodes of two models and reports the rest as differences."""

from __future__ import annotations

from collections import Counter
from collections.abc import Container, Iterable, Mapping, Sequence
from os import PathLike
from pathlib import Path

import onnx

from onnxgraft.comparison.matching_nodes import NodeMatching
from onnxgraft.comparison.outline import Outline
from onnxgraft.comparison.regions import group, neighbours
from onnxgraft.comparison.result import GraphDiff, NodeChange, Region, RegionSide, ValueChange
from onnxgraft.graph.name_check import check_texts
from onnxgraft.graph.surroundings import Surroundings
from onnxgraft.io.given import folder_of, opened_model
from onnxgraft.report.network import GraphChange, node_lines
from onnxgraft.report.node_texts import attribute_text, value_text
from onnxgraft.report.records import NodeText

# Of one region on one side; a tensor may have thousands of readers.
_MOST_NEIGHBOURS = 24


def diff(
    before: onnx.ModelProto | str | PathLike[str],
    after: onnx.ModelProto | str | PathLike[str],
    *,
    folder_before: str | PathLike[str] | None = None,
    folder_after: str | PathLike[str] | None = None,
) -> GraphDiff:
    """Compares two models: nodes, initializers, inputs, outputs and operator sets.

    Names of nodes and tensors do not count if the graph identifies them otherwise, neither does the order of nodes.
    `Constant` nodes are compared as initializers, nested bodies as a whole.

    Args:
        before: A model, or the path of one; it is not changed. Its external data need not exist.
        after: Another one; likewise.
        folder_before: Where the external data of `before` is. With both folders, existing data of tensors is compared
            byte by byte; otherwise the file name, offset and length are compared.
        folder_after: Where that of `after` is.

    Raises:
        ModelFileError: A name in a model is not UTF-8.
    """
    folder_before, folder_after = folder_of(before, folder_before), folder_of(after, folder_after)
    before, after = opened_model(before), opened_model(after)
    check_texts(before, after)
    has_bytes = folder_before is not None and folder_after is not None
    folders = (Path(folder) if has_bytes and folder is not None else None for folder in (folder_before, folder_after))
    first_folder, second_folder = folders
    sides = (Outline(before.graph, first_folder), Outline(after.graph, second_folder))
    matching = NodeMatching(*sides)
    changes = _changes(sides, matching)
    for old, new in _regions(sides, matching, changes):  # counterparts within a region, by operator
        _pair_by_operator(sides, matching, old, new)
    changes = _changes(sides, matching)
    regions = _regions(sides, matching, changes)
    first, second = (Counter(node.op_type for node in side.nodes) for side in sides)
    result = GraphDiff(
        nodes_before=len(sides[0].nodes),
        nodes_after=len(sides[1].nodes),
        unchanged=len(matching.pairs) - len(changes),
        operators={name: (first[name], second[name]) for name in first | second if first[name] != second[name]},
        initializers=_initializers(sides, _renamed_constants(sides, matching)),
        inputs=_values(before.graph.input, after.graph.input),
        outputs=_values(before.graph.output, after.graph.output),
        model=_headers(before, after) + _constant_nodes(sides),
        change=_graph_change(sides, matching, changes),
    )
    tell = [_SideTeller(side) for side in sides]
    for old, new in regions:
        changed = tuple(changes[index] for index in old if index in changes)
        result.regions.append(Region(tell[0].tell(old), tell[1].tell(new), changed))
    return result


class _SideTeller:
    """Describes regions of one graph."""

    def __init__(self, side: Outline) -> None:
        self._side = side
        graph = side.graph
        self._values = {v.name: v for values in (graph.value_info, graph.output, graph.input) for v in values}
        self._around = Surroundings(graph)

    def tell(self, nodes: Sequence[int]) -> RegionSide:
        texts = tuple(NodeText.of(self._side.nodes[index], index) for index in nodes)
        around = neighbours(self._side, self._around, nodes, _MOST_NEIGHBOURS)
        names = dict.fromkeys(name for node in texts for name in (*node.inputs, *node.outputs) if name)
        return RegionSide(
            texts,
            tuple(NodeText.of(self._side.nodes[index], index) for index in around),
            {name: shape for name in names if (shape := self._shape(name)) is not None},
            frozenset(name for name in names if self._side.is_constant(name)),
        )

    def _shape(self, name: str) -> str | None:
        if self._side.is_constant(name):
            return self._side.constant_text(name)
        return value_text(self._values[name]) if name in self._values else None


def _changes(sides: tuple[Outline, Outline], matching: NodeMatching) -> dict[int, NodeChange]:
    changes = {}
    for first, second in matching.pairs.items():
        if what := _differences(sides, matching.renamed, first, second):
            old, new = NodeText.of(sides[0].nodes[first], first), NodeText.of(sides[1].nodes[second], second)
            changes[first] = NodeChange(old, new, tuple(what))
    back = {second: first for first, second in matching.pairs.items()}
    for first, second in matching.pairs.items():
        if first not in changes and (what := _rewired(sides, first, second, back, changes)):
            old, new = NodeText.of(sides[0].nodes[first], first), NodeText.of(sides[1].nodes[second], second)
            changes[first] = NodeChange(old, new, tuple(what))
    return changes


def _rewired(
    sides: tuple[Outline, Outline], first: int, second: int, back: Mapping[int, int], changes: Container[int]
) -> list[str]:
    """Inputs of the same name that another node writes now, though that node is the same as before."""
    before, after = sides
    found = []
    for position, (a, b) in enumerate(zip(before.nodes[first].input, after.nodes[second].input, strict=True)):
        old, new = before.writers.get(a), after.writers.get(b)
        if old is None or a != b:
            continue
        if new is None and not after.is_constant(b) and b not in after.inputs:
            found.append(f"input {position}: nothing writes '{b}' any more")
        elif new is not None and new in back and back[new] not in changes and back[new] != old:
            writer = NodeText.of(after.nodes[new], new).label
            found.append(f"input {position}: '{b}' is written by {writer} now")
    return found


def _differences(sides: tuple[Outline, Outline], renamed: dict[str, str], first: int, second: int) -> Iterable[str]:
    before, after = sides
    old, new = before.nodes[first], after.nodes[second]
    found = []
    if before.contents[first] != after.contents[second]:
        texts = [{entry.name: attribute_text(entry) for entry in node.attribute} for node in (old, new)]
        for name in texts[0] | texts[1]:
            a, b = (side.get(name, "missing") for side in texts)
            found += [f"{name}: {a} -> {b}"] if a != b else []
        found = found or ["attributes: other values"]
    for position in range(max(len(old.input), len(new.input))):
        a, b = (node.input[position] if position < len(node.input) else "" for node in (old, new))
        if not _is_same(sides, renamed, a, b):
            found.append(f"input {position}: {_tensor(before, a)} -> {_tensor(after, b)}")
    if len(old.output) != len(new.output):
        found.append(f"outputs: {len(old.output)} -> {len(new.output)}")
    return found


def _is_same(sides: tuple[Outline, Outline], renamed: dict[str, str], first: str, second: str) -> bool:
    """Values of an initializer do not concern its readers, type and shape do."""
    before, after = sides
    if before.is_constant(first) != after.is_constant(second):
        return False
    if before.is_constant(first):
        if first == second:
            return before.constant_text(first) == after.constant_text(second)
        return before.digest(first) == after.digest(second)
    return first == second or renamed.get(first) == second


def _tensor(side: Outline, name: str) -> str:
    text = side.constant_text(name)
    return f"'{name}' {text}" if text else f"'{name}'" if name else "none"


def _regions(
    sides: tuple[Outline, Outline], matching: NodeMatching, changes: dict[int, NodeChange]
) -> list[tuple[list[int], list[int]]]:
    removed, added = matching.unmatched()
    old = sorted([*removed, *changes])
    new = sorted([*added, *(matching.pairs[index] for index in changes)])
    return group(sides, (old, new), matching.pairs)


def _pair_by_operator(
    sides: tuple[Outline, Outline], matching: NodeMatching, old: Sequence[int], new: Sequence[int]
) -> None:
    taken = set(matching.pairs.values())
    free = [
        [k for k in old if k not in matching.pairs],
        [k for k in new if k not in taken],
    ]
    for operator in dict.fromkeys(sides[0].contents[k][:2] for k in free[0]):
        first, second = (
            [k for k in nodes if side.contents[k][:2] == operator] for side, nodes in zip(sides, free, strict=True)
        )
        if len(first) == len(second):
            for pair in zip(first, second, strict=True):
                matching.pair_up(*pair)


def _graph_change(sides: tuple[Outline, Outline], matching: NodeMatching, changes: Container[int]) -> GraphChange:
    """The nodes of both. `Constant` nodes, which the matching leaves out, are paired by the tensor that they write."""
    before, after = sides
    written = {before.nodes[index].output[0]: index for index in before.constant_nodes}
    back = {new: old for old, new in _renamed_constants(sides, matching).items()}
    partner = {second: first for first, second in matching.pairs.items()}
    for index in after.constant_nodes:
        name = after.nodes[index].output[0]
        if (other := written.get(back.get(name, name))) is not None:
            partner[index] = other
    changed = frozenset(second for second, first in partner.items() if first in changes)
    return GraphChange(node_lines(before.graph), node_lines(after.graph), partner, changed)


def _constant_nodes(sides: tuple[Outline, Outline]) -> list[str]:
    old, new = (len(side.constant_nodes) for side in sides)
    return [f"Constant nodes, which are compared as initializers: {old} -> {new}"] if old != new else []


def _renamed_constants(sides: tuple[Outline, Outline], matching: NodeMatching) -> dict[str, str]:
    """Initializers of equal content at the same input of the same node under another name."""
    before, after = sides
    places = (
        place
        for first, second in matching.pairs.items()
        for place in zip(before.nodes[first].input, after.nodes[second].input, strict=False)
    )
    return {
        old: new
        for old, new in places
        if (before.is_constant(old) and not before.is_constant(new))
        and (after.is_constant(new) and not after.is_constant(old))
        and before.digest(old) == after.digest(new)
    }


def _initializers(sides: tuple[Outline, Outline], renamed: dict[str, str]) -> list[ValueChange]:
    before, after = sides
    names = [{**side.tensors, **side.sparse} for side in sides]
    found = []
    for name in names[0]:
        new = renamed.get(name, name)
        texts = before.constant_text(name), after.constant_text(new)
        if texts[1] is None or before.digest(name) != after.digest(new):
            same_kind = texts[0] == texts[1]
            found.append(ValueChange(name, texts[0], f"{texts[1]}, other values" if same_kind else texts[1]))
    known = {renamed.get(name, name) for name in names[0]}
    return found + [ValueChange(name, None, after.constant_text(name)) for name in names[1] if name not in known]


def _values(before: Iterable[onnx.ValueInfoProto], after: Iterable[onnx.ValueInfoProto]) -> list[ValueChange]:
    old, new = ({value.name: value_text(value) for value in values} for values in (before, after))
    found = [ValueChange(name, text, new.get(name)) for name, text in old.items() if new.get(name) != text]
    return found + [ValueChange(name, None, text) for name, text in new.items() if name not in old]


def _headers(before: onnx.ModelProto, after: onnx.ModelProto) -> list[str]:
    rows: list[tuple[str, int | None, int | None]] = [("IR version", before.ir_version, after.ir_version)]
    old, new = ({entry.domain or "ai.onnx": entry.version for entry in m.opset_import} for m in (before, after))
    rows += [(f"operator set {name}", old.get(name), new.get(name)) for name in old | new]
    bodies = [sorted(entry.SerializeToString(deterministic=True) for entry in m.functions) for m in (before, after)]
    found = [f"{what}: {a or 'none'} -> {b or 'none'}" for what, a, b in rows if a != b]
    return found + (["functions are different"] if bodies[0] != bodies[1] else [])
