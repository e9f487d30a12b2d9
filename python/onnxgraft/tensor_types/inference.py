"""Follows element types and shapes through a graph, node by node, and completes missing declarations."""

from __future__ import annotations

import logging
import math
from collections.abc import Callable, Hashable, Iterator, Mapping, MutableMapping, Sequence, Set
from typing import TypeAlias

import onnx
from onnx import TensorProto

from onnxgraft.graph.bodies import bodies
from onnxgraft.graph.onnx_calls import infer_node_outputs
from onnxgraft.tensor_types import quantized_values
from onnxgraft.tensor_types.kinds import FLOATING, Kind

# Larger initializers cannot be shapes, axes or sizes.
_LARGEST_SHAPE = 1024

# Operator, attributes and inputs of a node -> the known type of each output.
Inferred: TypeAlias = MutableMapping[Hashable, Sequence[Kind | None]]

_log = logging.getLogger(__name__)


class TensorTypes:
    """The known types of a graph's tensors, including those without a declaration.

    Args:
        graph: The graph; its nodes must be in topological order.
        opsets: Operator set version by domain, "" for the standard one.
        read: Returns the tensor with its values included; None if they cannot be read. Called for small initializers
            only.
        known: A cache of inferred outputs, for all graphs with these operator sets; equal nodes are inferred once.
    """

    def __init__(
        self,
        graph: onnx.GraphProto,
        opsets: Mapping[str, int],
        read: Callable[[TensorProto], TensorProto | None] = lambda tensor: tensor,
        known: Inferred | None = None,
    ) -> None:
        self._opsets = opsets
        self._read = read
        self._known: Inferred = {} if known is None else known
        self._constants = {tensor.name: tensor for tensor in reversed(graph.initializer)}
        found = quantized_values.find(graph, opsets)
        self._quantized, self._operands = found.tensors, found.operands
        self._sources: dict[str, int] = {}  # quantized tensor -> element type of what was quantized
        # Few declarations are needed: `get` reads each at its first use.
        self._declared = {
            value.name: value.type
            for values in (graph.value_info, graph.output, graph.input)
            for value in values
            if value.type.tensor_type.elem_type
        }
        self._kinds: dict[str, Kind] = {}
        nodes = list(graph.node)
        dequantized = []
        for node in nodes:
            op = node.op_type
            if op == "Constant":
                self._constants.update(_constant(node))
            elif op == "TesselDequant":
                dequantized.append(node)
        # A dequantize node passes on the shape, which is usually declared: so nothing must be inferred before it.
        self._handed_on = {node.input[0]: self._dims(node.output[0]) for node in dequantized}
        for index, node in enumerate(nodes):
            self._visit(index, node)

    def __getitem__(self, name: str) -> Kind:
        kind = self.get(name)
        if kind is None:
            raise KeyError(name)
        return kind

    def get(self, name: str) -> Kind | None:
        """The known type of a tensor; None if nothing is known."""
        kind = self._kinds.get(name)
        if kind is None:
            if name in self._constants:
                tensor = self._constants[name]
                kind = Kind(tensor.data_type, tuple(map(abs, tensor.dims)))
            elif name in self._declared:
                kind = Kind.of(self._declared[name])
            if kind is not None:
                self._kinds[name] = kind
        return kind

    def is_quantized(self, name: str) -> bool:
        """Whether a tensor holds quantized values, or sums of them."""
        return name in self._quantized

    @property
    def quantized(self) -> Set[str]:
        """The tensors that hold quantized values, or sums of them."""
        return self._quantized

    def _visit(self, index: int, node: onnx.NodeProto) -> None:
        op = node.op_type
        if op == "TesselQuant":
            self._quantize(node)
        elif op == "TesselDequant":
            self._dequantize(node)
        else:
            outputs = node.output[:]
            if not self._quantized.isdisjoint(outputs):
                self._compute(index, node)
            elif any(name and not self._has_dims(name) for name in outputs):
                for name, kind in self._inferred(node):
                    self._complete(name, kind)

    def _quantize(self, node: onnx.NodeProto) -> None:
        kind = self.get(node.input[0]) if node.input else None
        for name in node.output:
            self._sources[name] = _floating(kind)
            self._kinds[name] = Kind(TensorProto.INT8, kind.dims if kind is not None else self._dims(name))

    def _compute(self, index: int, node: onnx.NodeProto) -> None:
        """An operator on quantized values: a sum, or one that passes on the element type of its data."""
        operands = [name for name in node.input if name in self._sources]
        source = self._sources[operands[0]] if operands else _floating(self.get(node.input[0]))
        known = {name: self._dims(name) or self._handed_on.get(name) for name in node.output if name}
        inferred = {} if None not in known.values() else dict(self._inferred(node, index))
        for name in node.output:
            if name in self._quantized:
                self._sources[name] = source
                element = max((self[operand].element_type for operand in operands), default=TensorProto.INT32)
                dims = inferred[name].dims if name in inferred else known[name]
                self._kinds[name] = Kind(
                    TensorProto.INT32 if node.op_type in quantized_values.INTEGER_OPERATORS else element, dims
                )
            elif name in inferred:
                self._complete(name, inferred[name])

    def _dequantize(self, node: onnx.NodeProto) -> None:
        """A declared floating type wins, otherwise the type of the quantized tensor counts. The shape is passed on."""
        data = node.input[0] if node.input else ""
        for name in node.output:
            known = self.get(name)
            element = known.element_type if known is not None and known.element_type in FLOATING else 0
            dims = (known.dims if known is not None else None) or self._dims(data)
            self._kinds[name] = Kind(element or self._sources.get(data, TensorProto.FLOAT), dims)
            given = self.get(data)
            if given is not None and given.dims is None:
                self._kinds[data] = Kind(given.element_type, dims)

    def _complete(self, name: str, kind: Kind) -> None:
        """Declarations win over inference."""
        known = self.get(name)
        if known is None:
            self._kinds[name] = kind
        elif known.dims is None:
            self._kinds[name] = Kind(known.element_type, kind.dims)

    def _dims(self, name: str) -> tuple[int | str, ...] | None:
        kind = self.get(name)
        return kind.dims if kind is not None else None

    def _has_dims(self, name: str) -> bool:
        """Whether the shape is known; answers without reading a declaration."""
        if name in self._kinds or name in self._constants or name not in self._declared:
            return self._dims(name) is not None
        return self._declared[name].tensor_type.HasField("shape")

    def _schema(self, node: onnx.NodeProto) -> onnx.defs.OpSchema | None:
        domain = "" if node.domain == "ai.onnx" else node.domain
        try:
            return onnx.defs.get_schema(node.op_type, self._opsets[domain], domain)
        except (KeyError, onnx.defs.SchemaError):
            return None

    def _inferred(self, node: onnx.NodeProto, index: int = -1) -> Iterator[tuple[str, Kind]]:
        """The result of onnx's inference on the inputs, as far as they are known.

        It refuses integers if the operator is defined for floats. So quantized operands of the node at `index` are
        passed as floats, and only the shape of the result is used.
        """
        if ("" if node.domain == "ai.onnx" else node.domain) not in self._opsets or any(bodies(node)):
            return
        kinds = []
        for position, name in enumerate(node.input):
            kind = self.get(name)
            if kind is not None and (index, position) in self._operands:
                kind = Kind(TensorProto.FLOAT, kind.dims)
            kinds.append(kind)
        values: dict[str, TensorProto] = {}
        if node.op_type not in quantized_values.INTEGER_OPERATORS:  # their shapes do not depend on values
            values = {name: tensor for name in node.input if (tensor := self._small(name)) is not None}
        contents = [_content(values[name]) if name in values else b"" for name in node.input]
        key = (node.domain, node.op_type, len(node.output), *kinds, *contents, *map(_content, node.attribute))
        if key not in self._known:
            self._known[key] = self._ask(node, kinds, values)
        for name, kind in zip(node.output, self._known[key], strict=True):
            if name and kind is not None:
                yield name, kind

    def _ask(
        self, node: onnx.NodeProto, kinds: Sequence[Kind | None], values: Mapping[str, TensorProto]
    ) -> list[Kind | None]:
        """The outputs as onnx infers them."""
        unknown: list[Kind | None] = [None] * len(node.output)
        schema = self._schema(node)
        if schema is None or not schema.has_type_and_shape_inference_function:
            return unknown
        types = {
            name: onnx.helper.make_tensor_type_proto(kind.element_type, kind.sizes)
            for name, kind in zip(node.input, kinds, strict=True)
            if kind is not None
        }
        imports = [onnx.helper.make_opsetid(domain, version) for domain, version in self._opsets.items()]
        try:
            found = infer_node_outputs(schema, node, types, values, imports)
        except Exception as error:  # any error that a wrong node causes
            _log.debug("cannot infer the outputs of %s '%s': %s", node.op_type, node.name, error)
            return unknown
        return [Kind.of(found[name]) if name in found else None for name in node.output]

    def _small(self, name: str) -> TensorProto | None:
        tensor = self._constants.get(name)
        if tensor is None or math.prod(tensor.dims) > _LARGEST_SHAPE:
            return None
        return self._read(tensor)


def _constant(node: onnx.NodeProto) -> Iterator[tuple[str, TensorProto]]:
    if node.op_type == "Constant":
        for attribute in node.attribute:
            if attribute.name == "value":
                yield node.output[0], attribute.t


def _content(message: onnx.AttributeProto | TensorProto) -> bytes:
    """An attribute as bytes; a tensor without its name, if its values are raw."""
    if isinstance(message, TensorProto) and message.raw_data:
        return b"%d %s %s" % (message.data_type, str(message.dims[:]).encode(), message.raw_data)
    content: bytes = message.SerializeToString()
    return content


def _floating(kind: Kind | None) -> int:
    return kind.element_type if kind is not None and kind.element_type in FLOATING else TensorProto.FLOAT
