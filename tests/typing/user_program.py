"""A program as users write it. `make lint` checks its types against the package as it is installed."""

from pathlib import Path
from typing import ClassVar

import onnx
from onnx import GraphProto, NodeProto

import onnxgraft
from onnxgraft.abstract_transformation import AbstractTransformation, find_occurrences
from onnxgraft.model_files import ModelOutput, load
from onnxgraft.quant import QuantConvTransformation
from onnxgraft.transform_utilities import external_data_folder, get_init


@onnxgraft.register
class SwapReluMul(AbstractTransformation):
    """Moves a positive factor in front of a Relu."""

    subgraph: ClassVar[list[str]] = ["Relu:0->1", "Mul:1,2i->3"]
    replacement: ClassVar[list[str]] = ["#1:0,2i->4", "#0:4->3"]

    def get_simple_name(self) -> str:
        """The short name."""
        return "swap_relu_mul"

    def apply(self, graph: GraphProto, debug: bool = False) -> int:
        """Rewrites `graph`."""
        return self._replace_all_isomorphic_sub_graphs(graph, self.subgraph, self.replacement, debug=debug)

    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: object,
    ) -> bool:
        (factor,), (record,) = get_init(graph, [isomorphic_links_mapping["2"]])
        return bool((factor > 0).all()) and record.data_type == onnx.TensorProto.FLOAT


def use(model: onnx.ModelProto, folder: str) -> int:
    """Calls what the package offers."""
    count: int = QuantConvTransformation().apply(model.graph)
    with external_data_folder(folder) as entered:
        print(entered, len(find_occurrences(model.graph, ["Conv:0,1i->2"], ["#0"])))
    report = onnxgraft.rewrite(model, ["quant_conv", SwapReluMul], seed=0, until_stable=True)
    print(report.to_json(), [match.nodes for match in onnxgraft.find(model, "quant_conv")])
    print([miss.hint for miss in onnxgraft.explain(model, SwapReluMul)])
    onnxgraft.check_transformation(SwapReluMul, graphs=10).raise_if_failed()
    print([step.changed for step in onnxgraft.prepare(model)], sorted(onnxgraft.recipes()))
    return count + sum(step.replaced for step in report.steps)


def use_files(path: str) -> None:
    """Reads, rewrites and writes a model of any size."""
    with ModelOutput(Path("out.onnx"), overwrite=False, keep_external_data=True) as output:
        model = load(Path(path))
        weights = output.weights_for(model, Path(path).parent)
        onnxgraft.rewrite(model, "quant_matmul", folder=weights.folder, weight_store=weights)
        print(output.save(model, weights.folder).data_size)
