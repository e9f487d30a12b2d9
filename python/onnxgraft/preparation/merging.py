"""Nodes that compute the same from the same -> one of them, which all readers read."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping

from onnx import AttributeProto, GraphProto, NodeProto, TensorProto, defs

from onnxgraft.graph.bodies import bodies
from onnxgraft.preparation.workpiece import STANDARD_DOMAINS, Workpiece

# These compute something else each time, or belong to one reader each: runtimes fuse a dequantize node with what reads
# it, and patterns want the shape of a tensor for one `Resize` alone.
_LEFT_ALONE = frozenset(
    {"Bernoulli", "Constant", "DequantizeLinear", "Dropout", "Multinomial", "QuantizeLinear", "RandomNormal",
     "RandomNormalLike", "RandomUniform", "RandomUniformLike", "Shape"}
)  # fmt: skip
# Larger constants are equal only if they are one.
_LARGEST_COMPARED = 1024


def merge_equal_nodes(workpiece: Workpiece) -> int:
    """Merges nodes of standard operators that agree in operator, attributes and inputs, and what then agrees.

    Small constants of equal contents count as one input. A tensor that the graph returns or a nested body reads keeps
    its name; of two nodes that both write such a tensor, both stay.
    """
    graph = workpiece.graph
    written = [name for node in graph.node for name in node.output if name]
    if len(written) > len(set(written)):
        return 0
    merged = 0
    while changed := _merge_once(workpiece):
        merged += changed
    return merged


def _merge_once(workpiece: Workpiece) -> int:
    graph, kept, numbers = workpiece.graph, workpiece.kept_names(), _Numbers(workpiece)
    first: dict[tuple[object, ...], list[NodeProto]] = {}
    new_names: dict[str, str] = {}
    gone: set[int] = set()
    unread: set[str] = set()
    for index, node in enumerate(graph.node):
        if not _may_be_merged(node):
            continue
        key = (node.op_type, numbers.of(node.input), tuple(map(bool, node.output)))
        equal_so_far = first.setdefault(key, [])
        twin = next((other for other in equal_so_far if _attributes(other) == _attributes(node)), None)
        if twin is None:
            equal_so_far.append(node)
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
    """A number for each value: tensors that are known to be equal have the same."""

    def __init__(self, workpiece: Workpiece) -> None:
        self._workpiece = workpiece
        self._constants = workpiece.constants()
        self._of_name: dict[str, int] = {"": 0}
        self._of_contents: dict[tuple[object, ...], int] = {}

    def of(self, names: Iterable[str]) -> tuple[int, ...]:
        """The numbers of tensors, given to those that have none yet."""
        return tuple(self._of_name[name] if name in self._of_name else self._new(name) for name in names)

    def equate(self, names: Iterable[str], others: Iterable[str]) -> None:
        """Gives tensors the numbers of others."""
        self._of_name.update(zip(names, self.of(others), strict=True))

    def _new(self, name: str) -> int:
        fresh = len(self._of_name)
        contents = self._contents(self._constants[name]) if name in self._constants else None
        self._of_name[name] = fresh if contents is None else self._of_contents.setdefault(contents, fresh)
        return self._of_name[name]

    def _contents(self, tensor: TensorProto) -> tuple[object, ...] | None:
        if math.prod(tensor.dims) > _LARGEST_COMPARED:
            return None
        array = self._workpiece.values(tensor)
        return None if array is None else (tensor.data_type, *tensor.dims, array.tobytes())


def _may_be_merged(node: NodeProto) -> bool:
    known = node.domain in STANDARD_DOMAINS and node.op_type not in _LEFT_ALONE and defs.has(node.op_type)
    return known and any(node.input) and not any(True for _ in bodies(node))


def _attributes(node: NodeProto) -> list[bytes]:
    """What the attributes say, whatever their order."""
    texts = []
    for attribute in node.attribute:
        bare = AttributeProto()
        bare.CopyFrom(attribute)
        bare.ClearField("doc_string")
        texts.append(bare.SerializeToString(deterministic=True))
    return sorted(texts)


def _rename(graph: GraphProto, new_names: Mapping[str, str]) -> None:
    """Makes all nodes read the new names; a new name may itself have a newer one."""
    if not new_names:
        return
    for node in graph.node:
        for position, name in enumerate(node.input):
            while name in new_names:
                name = new_names[name]  # noqa: PLW2901
            if name != node.input[position]:
                node.input[position] = name
