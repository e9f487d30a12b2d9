"""Graphs written as a line per node: `Conv:group=2 x w -> y`; two blanks are an omitted input."""

from collections.abc import Mapping, Sequence
from itertools import chain
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import GraphProto, ModelProto, TensorProto, helper, numpy_helper

Array = npt.NDArray[Any]
Shape = Sequence[int | str | None] | None


def graph_of(
    lines: Sequence[str],
    *,
    inputs: Sequence[str] | Mapping[str, Shape] = (),
    outputs: Sequence[str] = (),
    tensors: Mapping[str, Array] | None = None,
) -> GraphProto:
    """A graph of the nodes, named node_0, node_1 and so on; inputs have no shapes unless given. All is float32."""
    graph = GraphProto(name="small")
    for number, line in enumerate(lines):
        left, right = line.split("->")
        head, *reads = left.removesuffix(" ").split(" ")
        operator, *attributes = head.split(":")
        values: Any = {name: int(value) for name, _, value in (text.partition("=") for text in attributes)}
        graph.node.append(helper.make_node(operator, reads, right.split(), f"node_{number}", **values))
    shapes: Mapping[str, Shape] = inputs if isinstance(inputs, Mapping) else dict.fromkeys(inputs)
    graph.input.extend(helper.make_tensor_value_info(name, TensorProto.FLOAT, shape) for name, shape in shapes.items())
    graph.output.extend(helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in outputs)
    graph.initializer.extend(numpy_helper.from_array(values, name) for name, values in (tensors or {}).items())
    return graph


def model_of(lines: Sequence[str], **parts: Any) -> ModelProto:
    """The model of such a graph, in operator set 17."""
    return helper.make_model(graph_of(lines, **parts), opset_imports=[helper.make_opsetid("", 17)], ir_version=8)


def ones(*shape: int) -> Array:
    return np.ones(shape, np.float32)


# Exchanges the two operators of each pair in `conv_relus`.
SWAP = ["Conv:0,1i->2", "Relu:2->3"], ["#1:0->100", "#0:100,101i->3"]


def conv_relus(count: int = 3) -> GraphProto:
    lines = [line for i in range(count) for line in (f"Conv x{i} w{i} -> y{i}", f"Relu y{i} -> x{i + 1}")]
    tensors = {f"w{i}": ones(1, 1, 1, 1) for i in range(count)}
    graph = graph_of(lines, inputs=["x0"], outputs=[f"x{count}"], tensors=tensors)
    for i in range(count):
        graph.value_info.append(helper.make_tensor_value_info(f"y{i}", TensorProto.FLOAT, None))
    return graph


def operators(graph: GraphProto) -> str:
    """The operators in list order, as one text."""
    return " ".join(node.op_type for node in graph.node)


def rename_tensors(graph: GraphProto, form: str) -> None:
    """Every tensor renamed; `form` takes the old name."""
    for node in graph.node:
        for field in (node.input, node.output):
            field[:] = [name and form.format(name) for name in field]
    lists: list[Any] = [graph.initializer, graph.input, graph.output, graph.value_info]
    for named in chain.from_iterable(lists):
        named.name = form.format(named.name)
