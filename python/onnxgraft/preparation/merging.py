"""Nodes that compute the same from the same inputs -> one of them, which all readers read."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping

from onnx import AttributeProto, GraphProto, NodeProto, defs

from onnxgraft.graph.bodies import bodies
from onnxgraft.preparation.workpiece import STANDARD_DOMAINS, Workpiece

# These differ with each run, or belong to one reader each: runtimes fuse a dequantize node with its reader, and
# patterns expect the shape of a tensor for one `Resize` alone.
_LEFT_ALONE = frozenset(
    {"Bernoulli", "Constant", "DequantizeLinear", "Dropout", "Multinomial", "QuantizeLinear", "RandomNormal",
     "RandomNormalLike", "RandomUniform", "RandomUniformLike", "Shape"}
)  # fmt: skip
# Larger constants count as equal only if they are the same initializer.
_LARGEST_COMPARED = 1024


def merge_equal_nodes(workpiece: Workpiece) -> int:
    """Merges nodes of standard operators with equal operator, attributes and inputs, and then nodes that became equal.

    Small constants of equal contents count as one input. A tensor that the graph returns or a nested body reads keeps
    its name; if two nodes both write such a tensor, both stay.
    """
    graph = workpiece.graph
    written = [name for node in graph.node for name in node.output if name]
    if len(written) > len(set(written)):
        return 0
    merged = changed = _merge_once(workpiece, _suspects(workpiece))
    while changed:  # readers of merged nodes may be equal now
        changed = _merge_once(workpiece, range(len(graph.node)))
        merged += changed
    return merged


def _suspects(workpiece: Workpiece) -> list[int]:
    """Nodes that share operator and first input with another one: the first nodes to merge are among them."""
    constants = workpiece.constants()
    groups: dict[tuple[str, str], list[int]] = {}
    for index, node in enumerate(workpiece.graph.node):
        if node.input:
            source = node.input[0]
            groups.setdefault((node.op_type, "" if source in constants else source), []).append(index)
    return sorted(index for group in groups.values() if len(group) > 1 for index in group)


def _merge_once(workpiece: Workpiece, positions: Iterable[int]) -> int:
    graph, kept, numbers = workpiece.graph, workpiece.kept_names(), _Numbers(workpiece)
    first: dict[tuple[object, ...], NodeProto] = {}
    exact: dict[tuple[object, ...], NodeProto] = {}
    new_names: dict[str, str] = {}
    gone: set[int] = set()
    unread: set[str] = set()
    for index in positions:
        node = graph.node[index]
        if not _may_be_merged(node):
            continue
        rough = (node.op_type, numbers.rough(node.input), tuple(map(bool, node.output)))
        similar = first.setdefault(rough, node)
        if similar is node:
            continue
        exact.setdefault((rough, *_exact(similar, numbers)), similar)
        twin = exact.setdefault((rough, *_exact(node, numbers)), node)
        if twin is node:
            continue
        old, new = list(node.output), list(twin.output)
        numbers.equate(old, new)
        if not kept.isdisjoint(old):
            if not kept.isdisjoint(new):
                continue
            old, new = new, old
            twin.output[:] = new
        new_names.update(pair for pair in zip(old, new, strict=True) if pair[0])
        unread.update(node.input)
        gone.add(index)
    _rename(graph, new_names)
    workpiece.remove_nodes(gone)
    workpiece.forget_values(new_names)
    workpiece.drop_unread(unread)
    return len(gone)


class _Numbers:
    """A number for each value: tensors that are known to be equal have the same number."""

    def __init__(self, workpiece: Workpiece) -> None:
        self._workpiece = workpiece
        self._constants = workpiece.constants()
        self._of_name: dict[str, int] = {"": 0}
        self._of_contents: dict[tuple[object, ...], int] = {}

    def of(self, names: Iterable[str]) -> tuple[int, ...]:
        """The numbers of tensors; a tensor without one gets one now."""
        return tuple(self._of_name[name] if name in self._of_name else self._new(name) for name in names)

    def rough(self, names: Iterable[str]) -> tuple[object, ...]:
        """The same number for equal tensors, and without reading a constant."""
        return tuple(self._kind(name) or self.of((name,)) for name in names)

    def equate(self, names: Iterable[str], others: Iterable[str]) -> None:
        """Gives tensors the numbers of other tensors."""
        self._of_name.update(zip(names, self.of(others), strict=True))

    def _new(self, name: str) -> int:
        fresh = len(self._of_name)
        contents = self._contents(name)
        self._of_name[name] = fresh if contents is None else self._of_contents.setdefault(contents, fresh)
        return self._of_name[name]

    def _kind(self, name: str) -> tuple[object, ...] | None:
        """Element type and dimensions of a constant whose contents are compared."""
        tensor = self._constants.get(name)
        if tensor is None or math.prod(tensor.dims) > _LARGEST_COMPARED:
            return None
        return (tensor.data_type, *tensor.dims)

    def _contents(self, name: str) -> tuple[object, ...] | None:
        kind = self._kind(name)
        array = None if kind is None else self._workpiece.values(self._constants[name])
        return None if array is None else (kind, array.tobytes())


def _may_be_merged(node: NodeProto) -> bool:
    known = node.domain in STANDARD_DOMAINS and node.op_type not in _LEFT_ALONE and defs.has(node.op_type)
    return known and any(node.input) and not any(True for _ in bodies(node))


def _exact(node: NodeProto, numbers: _Numbers) -> tuple[object, ...]:
    """The values that a node reads, and its attributes, in any order."""
    texts = []
    for attribute in node.attribute:
        bare = AttributeProto()
        bare.CopyFrom(attribute)
        bare.ClearField("doc_string")
        texts.append(bare.SerializeToString(deterministic=True))
    return (numbers.of(node.input), *sorted(texts))


def _rename(graph: GraphProto, new_names: Mapping[str, str]) -> None:
    """Makes all nodes read the new names. A new name may itself have been replaced."""
    if not new_names:
        return
    for node in graph.node:
        for position, name in enumerate(node.input):
            while name in new_names:
                name = new_names[name]  # noqa: PLW2901
            if name != node.input[position]:
                node.input[position] = name
