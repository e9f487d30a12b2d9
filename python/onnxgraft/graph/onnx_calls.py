"""The only door to onnx's C++ functions, which end the process on some models that onnx itself loads.

Its inference of `Slice` asserts that no size is negative, and that of `GatherND` reads beyond an array for a negative
`batch_dims`. So they get a copy in which negative sizes are unknown ones, without the nodes that would produce such
sizes. Omitted nodes are not inferred; the rest is.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import onnx
from onnx import AttributeProto, GraphProto, NodeProto, TensorProto, TypeProto, inliner, numpy_helper, shape_inference

# Sizes are computed in 64 bits from these attributes; larger values overflow.
_LARGEST = 2**31
_MEASURES = frozenset({"kernel_shape", "strides", "dilations", "pads", "output_padding", "output_shape"})
# Operators whose output has a negative size if one of these inputs, or an attribute `pads`, is negative.
_SIZED_BY = {"Pad": (1,), "CenterCropPad": (1,), "DFT": (1,), "STFT": (1, 3)}

_BODIES = frozenset({AttributeProto.GRAPH, AttributeProto.GRAPHS})
_TENSORS = frozenset({AttributeProto.TENSOR, AttributeProto.TENSORS})
_TYPES = frozenset({AttributeProto.TYPE_PROTO, AttributeProto.TYPE_PROTOS})


def infer_shapes(model: onnx.ModelProto, *, data_prop: bool = False) -> GraphProto:
    """The result of onnx's inference for a model.

    Args:
        model: The model; it is not changed.
        data_prop: Whether values of shape computations are followed.

    Returns:
        A graph with `input`, `output` and `value_info` as inferred. Nodes may be missing.

    Raises:
        InferenceError: onnx refuses the model; RuntimeError or ValueError in some of its releases.
    """
    copy = onnx.ModelProto()
    copy.CopyFrom(model)
    make_harmless(copy)
    return shape_inference.infer_shapes(copy, data_prop=data_prop).graph


def infer_node_outputs(
    schema: onnx.defs.OpSchema,
    node: NodeProto,
    types: Mapping[str, TypeProto],
    values: Mapping[str, TensorProto],
    opset_imports: list[onnx.OperatorSetIdProto],
) -> dict[str, TypeProto]:
    """The result of onnx's inference for one node: type and shape by output.

    Args:
        schema: The schema of the node's operator.
        node: The node.
        types: Types of its inputs; negative sizes in them become unknown ones.
        values: Values of constant inputs.
        opset_imports: The operator sets of the model.

    Raises:
        Exception: Anything that onnx raises for a wrong node.
    """
    for type_ in types.values():
        _clear_type(type_)
    known = {name: tensor for name, tensor in values.items() if not _has_negative(tensor.dims)}
    if _is_harmful(node, known):
        return {}
    found: dict[str, TypeProto] = shape_inference.infer_node_outputs(
        schema, node, dict(types), known, opset_imports=opset_imports
    )
    return found


def inline_local_functions(model: onnx.ModelProto) -> onnx.ModelProto:
    """A copy of the model with calls of its own functions inlined.

    Raises:
        Exception: Anything that onnx raises for functions that it cannot inline.
    """
    inlined: onnx.ModelProto = inliner.inline_local_functions(model)
    return inlined


def make_harmless(model: onnx.ModelProto, *, remove: bool = True) -> list[str]:
    """Clears negative sizes in place, and removes nodes and initializers that would produce such sizes.

    Args:
        model: The model, which changes.
        remove: Whether to remove nodes and initializers; False leaves them.

    Returns:
        Descriptions of what had to be removed, none of which may reach the C++ functions.
    """
    cleaning = _Cleaning(remove=remove)
    for function in model.functions:
        for value in getattr(function, "value_info", ()):  # since onnx 1.16
            _clear_type(value.type)
        cleaning.clean_nodes(function.node, {})
    cleaning.clean_graph(model.graph, {})
    return cleaning.found


class _Cleaning:
    def __init__(self, *, remove: bool) -> None:
        self.found: list[str] = []
        self._remove_them = remove

    def clean_graph(self, graph: GraphProto, outer: Mapping[str, TensorProto]) -> None:
        for values in (graph.input, graph.output, graph.value_info):
            for value in values:
                _clear_type(value.type)
        dense, sparse = graph.initializer, graph.sparse_initializer
        known = {tensor.name: tensor for tensor in dense}
        self._remove(dense, [(i, t.name) for i, t in enumerate(dense) if _has_negative(t.dims)])
        wrong = [(i, t) for i, t in enumerate(sparse) if _has_negative((*t.dims, *t.values.dims))]
        self._remove(sparse, [(i, t.values.name) for i, t in wrong])
        self.clean_nodes(graph.node, {**outer, **known})

    def clean_nodes(self, nodes: Any, constants: dict[str, TensorProto]) -> None:
        gone = []
        for index, node in enumerate(nodes):
            if _is_harmful(node, constants):
                gone.append((index, f"{node.op_type} {node.name}"))
                continue
            for attribute in node.attribute:
                kind = attribute.type
                if kind in _BODIES:
                    for body in (attribute.g, *attribute.graphs):
                        self.clean_graph(body, constants)
                elif kind == AttributeProto.TENSOR and node.op_type == "Constant" and node.output:
                    constants[node.output[0]] = attribute.t
                elif kind in _TYPES:
                    for type_ in (attribute.tp, *attribute.type_protos):
                        _clear_type(type_)
        self._remove(nodes, gone)

    def _remove(self, field: Any, items: list[tuple[int, str]]) -> None:
        self.found += [f"'{name}' has a negative or too large size" for _, name in items]
        for position, _ in reversed(items if self._remove_them else []):
            del field[position]


def _is_harmful(node: NodeProto, constants: Mapping[str, TensorProto]) -> bool:
    for attribute in node.attribute:
        name, kind = attribute.name, attribute.type
        if name == "batch_dims" and attribute.i < 0:
            return True
        if name in _MEASURES and any(abs(size) >= _LARGEST for size in attribute.ints):
            return True
        if name == "pads" and node.op_type == "Pad" and _has_negative(attribute.ints):
            return True
        if kind in _TENSORS and any(_has_negative(tensor.dims) for tensor in (attribute.t, *attribute.tensors)):
            return True
    if node.op_type not in _SIZED_BY:
        return False
    names = (node.input[k] for k in _SIZED_BY[node.op_type] if k < len(node.input))
    return any(_may_be_negative(constants[name]) for name in names if name in constants)


def _may_be_negative(tensor: TensorProto) -> bool:
    if tensor.data_location == TensorProto.EXTERNAL:
        return True
    try:
        return bool((numpy_helper.to_array(tensor) < 0).any())
    except (TypeError, ValueError):  # the tensor is broken
        return True


def _clear_type(type_: TypeProto) -> None:
    for tensor in _tensor_types(type_):
        for dim in tensor.shape.dim:
            if dim.dim_value < 0:
                dim.ClearField("dim_value")


def _tensor_types(type_: TypeProto) -> Iterator[Any]:
    """The tensor types in a type: sequences, maps and optional ones hold another type."""
    while (kind := type_.WhichOneof("value")) is not None:
        inner = getattr(type_, kind)
        if kind in {"tensor_type", "sparse_tensor_type"}:
            yield inner
            return
        if kind == "opaque_type":
            return
        type_ = inner.value_type if kind == "map_type" else inner.elem_type


def _has_negative(sizes: Iterable[int]) -> bool:
    return any(size < 0 for size in sizes)
