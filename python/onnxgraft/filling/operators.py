"""The operators of a float model that the transformations of a run will quantize."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

import onnx

from onnxgraft import quant
from onnxgraft.catalogue import Transformation
from onnxgraft.filling.graph_edits import label
from onnxgraft.matching import find

_QUANTIZING = (quant.QuantConvTransformation, quant.QuantGemmTransformation, quant.QuantMatMulTransformation)
_FLOATS = (onnx.TensorProto.FLOAT, onnx.TensorProto.FLOAT16, onnx.TensorProto.DOUBLE)


@dataclass(frozen=True)
class Quantizable:
    """One operator that will be quantized.

    Attributes:
        node: A `Conv`, `Gemm` or `MatMul`.
        add: The `Add` after a `MatMul` that becomes part of it; None without one.
        weight: The initializer that is its weight.
        bias: The initializer that is its bias; None without one.
    """

    node: onnx.NodeProto
    add: onnx.NodeProto | None
    weight: str
    bias: str | None

    @property
    def output(self) -> str:
        """The operator's own output: its name wherever operators are named."""
        return self.node.output[0]

    @property
    def written(self) -> str:
        """The output after the `Add`."""
        return (self.add or self.node).output[0]

    @property
    def label(self) -> str:
        """Type and name."""
        return label(self.node)


def quantizable(graph: onnx.GraphProto, rows: Iterable[Transformation]) -> list[Quantizable]:
    """The operators that these transformations will quantize, in the order of the graph."""
    types = {tensor.name: tensor.data_type for tensor in graph.initializer}
    found: dict[int, Quantizable] = {}
    for row in rows:
        if not issubclass(row.cls, _QUANTIZING):
            continue
        for match in find(graph, row):
            index = match.nodes[0]
            if index in found or types.get(match.links["1"]) not in _FLOATS:
                continue
            node = graph.node[index]
            add = graph.node[match.nodes[1]] if len(match.nodes) > 1 else None
            bias = match.links.get("3" if node.op_type == "MatMul" else "2") if add or len(node.input) > 2 else None
            found[index] = Quantizable(node, add, match.links["1"], bias)
    return [found[index] for index in sorted(found)]
