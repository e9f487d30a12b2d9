"""A program as users write it. `make lint` checks its types against the package as it is installed."""

from typing import ClassVar

import onnx
from onnx import GraphProto

import onnxgraft
from onnxgraft.abstract_transformation import AbstractTransformation
from onnxgraft.quant import QuantConvTransformation
from onnxgraft.transform_utilities import external_data_folder, get_init


@onnxgraft.register
class SwapReluMul(AbstractTransformation):
    """Moves a positive factor before a Relu."""

    subgraph: ClassVar[list[str]] = ["Relu:0->1", "Mul:1,2i->3"]
    replacement: ClassVar[list[str]] = ["#1:0,2i->4", "#0:4->3"]

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        """Rewrites `graph`."""
        return self._replace_all_isomorphic_sub_graphs(graph, self.subgraph, self.replacement, debug=debug)


def use(model: onnx.ModelProto, folder: str) -> int:
    """Calls what each module of the package offers."""
    report = onnxgraft.rewrite(model, ["quant_conv", SwapReluMul], seed=0, until_stable=True)
    with external_data_folder(folder) as entered:
        print(entered, get_init(model.graph, ["w"])[0][0].shape)
    return QuantConvTransformation().apply(model.graph) + sum(step.replaced for step in report.steps)
