"""A form of a graph that ignores names, node order and the way in which a tensor stores its bytes."""

from __future__ import annotations

import hashlib
from collections import Counter
from collections.abc import Iterable

import onnx
from onnx import numpy_helper

Digest = bytes


def _digest(*parts: bytes) -> Digest:
    hashed = hashlib.blake2b(digest_size=16)
    for part in parts:
        hashed.update(len(part).to_bytes(8, "little"))
        hashed.update(part)
    return hashed.digest()


def _tensor(tensor: onnx.TensorProto, values: bool) -> Digest:
    array = numpy_helper.to_array(tensor)
    return _digest(b"tensor", str(array.dtype).encode(), repr(array.shape).encode(), array.tobytes() if values else b"")


def _attributes(node: onnx.NodeProto) -> list[bytes]:
    return sorted(_digest(a.name.encode(), repr(onnx.helper.get_attribute_value(a)).encode()) for a in node.attribute)


class _Form:
    def __init__(self, graph: onnx.GraphProto, values: bool) -> None:
        self.tensors: dict[str, Digest] = {"": b""}
        self.tensors |= {value.name: _digest(b"input", value.name.encode()) for value in graph.input}
        self.initializers = [_tensor(tensor, values) for tensor in graph.initializer]
        names = (tensor.name for tensor in graph.initializer)
        self.tensors |= dict(zip(names, self.initializers, strict=True))
        self.nodes = [self._node(node) for node in graph.node]
        self.outputs = [self.tensors[value.name] for value in graph.output]

    def _node(self, node: onnx.NodeProto) -> Digest:
        if missing := [name for name in node.input if name not in self.tensors]:
            raise ValueError(f"node {node.name!r} reads {missing[0]!r}, which nothing before it writes")
        inputs = [self.tensors[name] for name in node.input]
        form = _digest(node.op_type.encode(), *_attributes(node), b"|", *inputs)
        for position, name in enumerate(node.output):
            self.tensors[name] = _digest(form, position.to_bytes(4, "little"))
        return form


def difference(graph: onnx.GraphProto, other: onnx.GraphProto, values: bool = True) -> str | None:
    """The difference of two graphs, or None if both compute the same from the same tensors.

    Args:
        graph: A graph in topological order.
        other: The same.
        values: Whether the contents of initializers count, or only types and shapes.
    """
    one, two = _Form(graph, values), _Form(other, values)
    for what in ("initializers", "nodes", "outputs"):
        first, second = Counter(getattr(one, what)), Counter(getattr(two, what))
        if first != second:
            return f"{_total(first - second)} and {_total(second - first)} {what} without a counterpart"
    return None


def _total(counter: Iterable[Digest]) -> int:
    return sum(1 for _ in counter)
