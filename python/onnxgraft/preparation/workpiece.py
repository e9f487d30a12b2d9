"""The graph that the steps work on, and the few edits that they make.

Invariant: after each edit every name that is read is still defined. Names that others refer to (graph outputs, nested
bodies) are never renamed or removed.
"""

from __future__ import annotations

import os
from collections.abc import Callable, Collection, Iterable
from typing import TYPE_CHECKING, Any

import numpy as np
from onnx import GraphProto, ModelProto, NodeProto, TensorProto, TypeProto, ValueInfoProto, helper, numpy_helper

from onnxgraft.graph.names import all_names, body_reads
from onnxgraft.graph.tensor_values import Array, read_values
from onnxgraft.preparation.type_inference import inferred_values, lists_initializers

if TYPE_CHECKING:
    from onnxgraft.io.weight_store import WeightStore


STANDARD_DOMAINS = frozenset({"", "ai.onnx"})


class Workpiece:
    """One graph being prepared.

    Args:
        model: The model, or its graph alone. A graph does not say which operator set it uses, so nothing is inferred.
        folder: The folder that the locations of external tensors start from; None is the current one.
        weight_store: Where to put new tensors, if not into the graph.

    Attributes:
        lists_initializers: Whether the file format also lists initializers among the graph's inputs.
    """

    def __init__(
        self,
        model: ModelProto | GraphProto,
        folder: str | os.PathLike[str] | None = None,
        weight_store: WeightStore | None = None,
    ) -> None:
        self._weight_store = weight_store
        self.model = model if isinstance(model, ModelProto) else None
        self.graph = model.graph if isinstance(model, ModelProto) else model
        self.folder = os.fspath(folder) if folder is not None else "."
        old_format = self.model is not None and lists_initializers(self.model)
        self._inputs_are_constant = old_format
        self.lists_initializers = old_format or (self.model is None and self._all_listed())
        self._inferred: list[ValueInfoProto] | None = None

    def constants(self) -> dict[str, TensorProto]:
        """The initializers that are constant: a caller can override those among the inputs."""
        inputs = set() if self._inputs_are_constant else {value.name for value in self.graph.input}
        return {tensor.name: tensor for tensor in self.graph.initializer if tensor.name not in inputs}

    def values(self, tensor: TensorProto) -> Array | None:
        """The values of a tensor; None if they cannot be read or NumPy has no equal element type."""
        return read_values(tensor, self.folder)

    @property
    def opset(self) -> int:
        """The version of the standard operator set; 0 for a graph alone, which does not state it."""
        imports = self.model.opset_import if self.model is not None else ()
        return max((entry.version for entry in imports if entry.domain in STANDARD_DOMAINS), default=0)

    def defined_names(self) -> set[str]:
        """Names of graph inputs and initializers."""
        return {value.name for value in self.graph.input} | {tensor.name for tensor in self.graph.initializer}

    def kept_names(self) -> set[str]:
        """Names that must stay: graph outputs and tensors that nested bodies read."""
        return {value.name for value in self.graph.output} | body_reads(self.graph)

    def inferred(self) -> list[ValueInfoProto]:
        """Types and shapes of the graph's tensors, inferred once, since few steps change them."""
        if self._inferred is None:
            self._inferred = inferred_values(self.model, self.folder) if self.model else list(self.graph.value_info)
        return self._inferred

    def infer_again(self) -> None:
        """Call this after a change that lets inference find more, or that adds nodes."""
        self._inferred = None

    def types(self) -> dict[str, TypeProto.Tensor]:
        """Element type and shape of each tensor for which they are known."""
        values = [*self.graph.output, *self.inferred(), *self.graph.input]
        return {value.name: value.type.tensor_type for value in values if value.type.HasField("tensor_type")}

    def element_type(self, name: str) -> int:
        """The element type of a tensor that a node writes or a caller gives; 0 if it is not known."""
        tensor = self.types().get(name)
        return TensorProto.UNDEFINED if tensor is None else tensor.elem_type

    def fresh_names(self) -> Callable[[str], str]:
        """A function that returns an unused name close to the one asked for."""
        taken: set[str] = set()

        def fresh(wanted: str) -> str:
            if not taken:
                taken.update(all_names(self.graph))
            name, number = wanted, 1
            while name in taken:
                name, number = f"{wanted}_{number}", number + 1
            taken.add(name)
            return name

        return fresh

    def add(self, tensor: TensorProto) -> None:
        """Adds an initializer, and an input of its name if the file format requires one."""
        self.graph.initializer.append(tensor)
        if self.lists_initializers:
            value = helper.make_tensor_value_info(tensor.name, tensor.data_type, list(tensor.dims))
            self.graph.input.append(value)

    def add_array(self, array: Array, name: str) -> None:
        """Adds an initializer with these values."""
        tensor = numpy_helper.from_array(np.ascontiguousarray(array).reshape(array.shape), name)
        self.add(tensor if self._weight_store is None else self._weight_store.store(tensor))

    def remove_nodes(self, positions: Collection[int]) -> None:
        """Removes the nodes at these positions from the graph."""
        remove_at(self.graph.node, positions)

    def forget_values(self, names: Collection[str]) -> None:
        """Removes the `value_info` entries of tensors that no longer exist."""
        values = self.graph.value_info
        remove_at(values, [index for index, value in enumerate(values) if value.name in names])

    def drop_unread(self, names: Collection[str]) -> None:
        """Removes those of the constants that no longer have a reader."""
        if not names:
            return
        read = {name for node in self.graph.node for name in node.input} | self.kept_names()
        unread = (set(names) & self.constants().keys()) - read
        fields: tuple[Any, ...] = (self.graph.initializer, self.graph.input, self.graph.value_info)
        for field in fields:
            remove_at(field, [index for index, value in enumerate(field) if value.name in unread])

    def _all_listed(self) -> bool:
        """A graph alone does not state its file format. One that lists all its initializers may be an old one."""
        inputs = {value.name for value in self.graph.input}
        return bool(self.graph.initializer) and all(tensor.name in inputs for tensor in self.graph.initializer)


def is_standard(node: NodeProto, op_type: str) -> bool:
    """Whether a node is ONNX's own operator of that name."""
    return node.op_type == op_type and node.domain in STANDARD_DOMAINS


def input_of(node: NodeProto, position: int) -> str:
    """The name at a position; empty if the input is omitted or the node has fewer."""
    return node.input[position] if position < len(node.input) else ""


def known_lengths(tensor: TypeProto.Tensor | None) -> list[int | None] | None:
    """The length of each axis, None if it is unknown; None instead of a list if the rank is unknown.

    Exporters write 0 and negative numbers for lengths that they do not know.
    """
    if tensor is None or not tensor.HasField("shape"):
        return None
    return [dim.dim_value if dim.dim_value > 0 else None for dim in tensor.shape.dim]


def remove_at(field: Any, positions: Iterable[int]) -> None:
    """Removes items of a repeated field: a stable sort moves them to the end, one deletion removes them."""
    gone = set(positions)
    if not gone:
        return
    size = len(field)
    leaving = iter([index in gone for index in range(size)])
    field.sort(key=lambda _: next(leaving))
    del field[size - len(gone) :]
