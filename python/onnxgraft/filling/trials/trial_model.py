"""A float model in which each operator can be switched to its quantized form, while it runs.

One session computes any choice: an `If` replaces each operator, with a switch and a correction of its bias as inputs of
the model.
"""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper, numpy_helper

from onnxgraft.filling.trials.simulation import Simulation

Array = npt.NDArray[Any]

_AXES_AS_INPUT = 18  # from this operator set on, ReduceMean has them there


def switch(simulation: Simulation) -> str:
    """The input that says whether an operator is quantized."""
    return f"{simulation.name}_switch"


def correction(simulation: Simulation) -> str:
    """The input that is subtracted from the result of a quantized operator."""
    return f"{simulation.name}_correction"


def size(simulation: Simulation) -> str:
    """The tensor with the number of elements of an operator's output."""
    return f"{simulation.name}_size"


def switched_model(model: onnx.ModelProto, simulations: Sequence[Simulation]) -> onnx.ModelProto:
    """The model with switches; `model` is not changed."""
    result = onnx.ModelProto()
    result.CopyFrom(model)
    graph = result.graph
    by_written = {simulation.operator.written: simulation for simulation in simulations}
    inner = {simulation.operator.output for simulation in simulations} - by_written.keys()
    nodes = []
    for node in graph.node:
        if node.output[0] in inner:
            continue
        simulation = by_written.get(node.output[0])
        nodes.append(node if simulation is None else _branch(simulation))
        if simulation is not None:
            nodes.append(helper.make_node("Size", [node.output[0]], [size(simulation)]))
    copies = [onnx.NodeProto.FromString(node.SerializeToString()) for node in nodes]
    del graph.node[:]
    graph.node.extend(copies)
    for simulation in simulations:
        graph.initializer.extend(simulation.constants)
        graph.input.append(helper.make_tensor_value_info(switch(simulation), TensorProto.BOOL, []))
        shape = list(simulation.channels)
        graph.input.append(helper.make_tensor_value_info(correction(simulation), TensorProto.FLOAT, shape))
    return result


def _branch(simulation: Simulation) -> onnx.NodeProto:
    operator = simulation.operator
    quantized, written = simulation.write(correction(simulation))
    exact = [operator.node] if operator.add is None else [operator.node, operator.add]
    # Names inside a branch must differ from those of the outer graph.
    renamed = {name: f"{simulation.name}_float_{name}" for node in exact for name in node.output}
    copies = []
    for node in exact:
        copy = onnx.NodeProto.FromString(node.SerializeToString())
        copy.input[:] = [renamed.get(name, name) for name in node.input]
        copy.output[:] = [renamed[name] for name in node.output]
        copies.append(copy)
    branches: dict[str, Any] = {
        "then_branch": helper.make_graph(quantized, "quantized", [], [onnx.ValueInfoProto(name=written)]),
        "else_branch": helper.make_graph(copies, "exact", [], [onnx.ValueInfoProto(name=renamed[operator.written])]),
    }
    return helper.make_node("If", [switch(simulation)], [operator.written], name=simulation.name, **branches)


def error_model(model: onnx.ModelProto, simulations: Sequence[Simulation]) -> tuple[onnx.ModelProto, list[str]]:
    """The float model, with a quantized form of each operator on the same float input.

    Returns:
        The model and the outputs that hold the mean error of each operator: of shape [C], quantized minus float.
    """
    result = onnx.ModelProto()
    result.CopyFrom(model)
    graph = result.graph
    version = next(entry.version for entry in model.opset_import if entry.domain in {"", "ai.onnx"})
    nodes = {node.output[0]: [node] for node in graph.node}
    outputs = []
    for simulation in simulations:
        quantized, written = simulation.write()
        name = simulation.name
        quantized.append(helper.make_node("Sub", [written, simulation.operator.written], [f"{name}_error"]))
        quantized.append(helper.make_node("Cast", [f"{name}_error"], [f"{name}_float_error"], to=TensorProto.FLOAT))
        transposed = _channels_last(simulation)
        quantized += transposed
        last = transposed[-1].output[0] if transposed else f"{name}_float_error"
        quantized.append(helper.make_node("Reshape", [last, f"{name}_rows"], [f"{name}_matrix"]))
        graph.initializer.append(
            numpy_helper.from_array(np.array([-1, int(np.prod(simulation.channels))]), f"{name}_rows")
        )
        attributes: dict[str, Any] = {"keepdims": 0}
        inputs = [f"{name}_matrix"]
        if version < _AXES_AS_INPUT:
            attributes["axes"] = [0]
        else:
            graph.initializer.append(numpy_helper.from_array(np.array([0]), f"{name}_axes"))
            inputs.append(f"{name}_axes")
        quantized.append(helper.make_node("ReduceMean", inputs, [f"{name}_mean"], **attributes))
        graph.initializer.extend(simulation.constants)
        nodes[simulation.operator.written] += quantized
        outputs.append(f"{name}_mean")
    copies = [onnx.NodeProto.FromString(node.SerializeToString()) for group in nodes.values() for node in group]
    del graph.node[:]
    graph.node.extend(copies)
    return result, outputs


def _channels_last(simulation: Simulation) -> list[onnx.NodeProto]:
    """A convolution has its channels at axis 1; everything else has them last already."""
    rank = len(simulation.channels) + 1
    if simulation.operator.node.op_type != "Conv":
        return []
    order = [0, *range(2, rank), 1]
    name = simulation.name
    return [helper.make_node("Transpose", [f"{name}_float_error"], [f"{name}_turned"], perm=order)]


def feeds_of(
    simulations: Sequence[Simulation], quantized: frozenset[str], corrections: Mapping[str, Array]
) -> dict[str, Array]:
    """The values of all switches and corrections; operators are named by their own outputs."""
    feeds: dict[str, Array] = {}
    for simulation in simulations:
        output = simulation.operator.output
        feeds[switch(simulation)] = np.array(output in quantized)
        values = corrections.get(output)
        zeros = np.zeros(simulation.channels, np.float32)
        feeds[correction(simulation)] = zeros if values is None else values.astype(np.float32).reshape(zeros.shape)
    return feeds
