"""The state of a graph at the start of a step, and the way back to it.

Weights are not copied. The snapshot holds the objects of all list elements: a removed one keeps its content, and is
copied back only if the step must be undone. Steps edit only small things in place (inputs and attributes of nodes,
types of tensors), so the bytes of those are kept too; the content of an initializer is not.
"""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any

import onnx

from onnxgraft.graph.bodies import in_attribute

# Lists of small elements, kept with their bytes, and lists of tensors.
_SMALL = ("node", "input", "output", "value_info", "quantization_annotation")
_TENSORS = ("initializer", "sparse_initializer")
# Nodes with more tensor elements than this in their attributes are not copied: they hold weights.
_LARGEST_COPIED = 1 << 14
_BODIES = (onnx.AttributeProto.GRAPH, onnx.AttributeProto.GRAPHS)
_TENSOR_TYPES = (onnx.AttributeProto.TENSOR, onnx.AttributeProto.TENSORS)
_SPARSE_TYPES = (onnx.AttributeProto.SPARSE_TENSOR, onnx.AttributeProto.SPARSE_TENSORS)


class Snapshot:
    """The lists of one graph, and of bodies in its nodes that were added with `include`."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self._graph = graph
        self._lists = [_List(getattr(graph, name), with_bytes=True) for name in _SMALL]
        self._lists += [_List(getattr(graph, name), with_bytes=False) for name in _TENSORS]
        self._initializers = self._lists[len(_SMALL)]
        self._by_name: dict[str, onnx.TensorProto] | None = None
        self._bodies: list[Snapshot] = []

    def include(self, graph: onnx.GraphProto) -> None:
        """Adds a nested body, unless it is known already, before something changes its lists."""
        if all(graph is not known for known in self._graphs()):
            self._bodies.append(Snapshot(graph))

    def initializer(self, name: str) -> onnx.TensorProto | None:
        """The initializer of that name as the step found it, even if it has been removed since; None if there was none.

        Only its record: content that was edited in place is as it is now.
        """
        if self._by_name is None:
            self._by_name = {tensor.name: tensor for tensor in reversed(self._initializers.elements)}
        return self._by_name.get(name)

    def put_back(self) -> None:
        """Restores the graph: same elements, same order, same content."""
        # Bodies first: their nodes may be copied back with their content.
        for body in reversed(self._bodies):
            body.put_back()
        for elements in self._lists:
            elements.put_back()

    def _graphs(self) -> Iterator[onnx.GraphProto]:
        yield self._graph
        for body in self._bodies:
            yield body._graph


class _List:
    """One repeated message field."""

    def __init__(self, field: Any, *, with_bytes: bool) -> None:
        self._field = field
        self.elements: list[Any] = list(field)
        self._bytes = [_small_bytes(element) for element in self.elements] if with_bytes else None

    def put_back(self) -> None:
        now = list(self._field)
        if len(now) != len(self.elements) or any(a is not b for a, b in zip(now, self.elements, strict=True)):
            self._restore_order(now)
        if self._bytes is None:
            return
        for element, content in zip(self._field, self._bytes, strict=True):
            if content is not None and element.SerializeToString() != content:
                element.ParseFromString(content)

    def _restore_order(self, now: list[Any]) -> None:
        places = {id(element): place for place, element in enumerate(self.elements)}
        count = len(places)
        ranks = [places.pop(id(element), count) for element in now]
        for place in places.values():
            self._field.append(self.elements[place])
            ranks.append(place)
        next_rank = iter(ranks)
        self._field.sort(key=lambda _: next(next_rank))
        del self._field[count:]


def _small_bytes(element: Any) -> bytes | None:
    if isinstance(element, onnx.NodeProto) and _stored_elements(element) > _LARGEST_COPIED:
        return None
    content: bytes = element.SerializeToString()
    return content


def _stored_elements(node: onnx.NodeProto) -> int:
    """How many tensor elements the attributes of a node hold, those of nested bodies included."""
    count = 0
    for attribute in node.attribute:
        kind = attribute.type
        if kind in _TENSOR_TYPES:
            count += sum(math.prod(tensor.dims) for tensor in (attribute.t, *attribute.tensors))
        elif kind in _SPARSE_TYPES:
            sparse = (attribute.sparse_tensor, *attribute.sparse_tensors)
            count += sum(math.prod(tensor.values.dims) for tensor in sparse)
        elif kind in _BODIES:
            for graph in in_attribute(attribute):
                count += sum(math.prod(tensor.dims) for tensor in graph.initializer)
                count += sum(_stored_elements(inner) for inner in graph.node)
    return count
