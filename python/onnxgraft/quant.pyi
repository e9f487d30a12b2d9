from abc import ABC, abstractmethod
from collections.abc import Mapping, Sequence
from typing import Any, ClassVar

from onnx import GraphProto, NodeProto, TensorProto

from onnxgraft.abstract_transformation import AbstractTransformation

class FuseTesselQuantAnyTransformation(AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_rep_1: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_rep_2: ClassVar[list[str]]
    subgraph_3: ClassVar[list[str]]
    subgraph_rep_3: ClassVar[list[str]]
    subgraph_4: ClassVar[list[str]]
    subgraph_rep_4: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...

class ChangeTesselQuantTransformation(FuseTesselQuantAnyTransformation):
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class UpdateTesselQuantTransformation(AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_rep_1: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_rep_2: ClassVar[list[str]]
    subgraph_3: ClassVar[list[str]]
    subgraph_rep_3: ClassVar[list[str]]
    subgraph_4: ClassVar[list[str]]
    subgraph_rep_4: ClassVar[list[str]]
    subgraph_5: ClassVar[list[str]]
    subgraph_rep_5: ClassVar[list[str]]
    subgraph_6: ClassVar[list[str]]
    subgraph_rep_6: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class AbstractPullUpTesselQuantTransformation(AbstractTransformation, ABC):
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    @abstractmethod
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class ChangeTesselQuantTransformationV2(AbstractPullUpTesselQuantTransformation):
    subgraph_2: ClassVar[list[str]]
    subgraph_replacement_2: ClassVar[list[str]]
    subgraph_3: ClassVar[list[str]]
    subgraph_replacement_3: ClassVar[list[str]]
    subgraph_4: ClassVar[list[str]]
    subgraph_replacement_4: ClassVar[list[str]]
    subgraph_5: ClassVar[list[str]]
    subgraph_replacement_5: ClassVar[list[str]]
    subgraph_6: ClassVar[list[str]]
    subgraph_replacement_6: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV1(AbstractPullUpTesselQuantTransformation):
    subgraph1: ClassVar[list[str]]
    subgraph2: ClassVar[list[str]]
    subgraph_replacement1: ClassVar[list[str]]
    subgraph_replacement2: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV2(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV3(AbstractPullUpTesselQuantTransformation):
    subgraph1: ClassVar[list[str]]
    subgraph2: ClassVar[list[str]]
    subgraph_replacement1: ClassVar[list[str]]
    subgraph_replacement2: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV4(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV5(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV6(AbstractPullUpTesselQuantTransformation):
    subgraph1: ClassVar[list[str]]
    subgraph2: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV7(AbstractPullUpTesselQuantTransformation):
    subgraph1: ClassVar[list[str]]
    subgraph_replacement1: ClassVar[list[str]]
    subgraph2: ClassVar[list[str]]
    subgraph_replacement2: ClassVar[list[str]]
    subgraph3: ClassVar[list[str]]
    subgraph_replacement3: ClassVar[list[str]]
    subgraph4: ClassVar[list[str]]
    subgraph_replacement4: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV8(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV9(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ReplaceConcatQuantTransformationV10(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class ChangeGAPCONVTransformation(AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_rep_1: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_rep_2: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class DeleteConcatTransformation(AbstractTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...

class FuseQuantBatchNormTransformation(AbstractTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class ReplaceResizeQuantTransformation(AbstractPullUpTesselQuantTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...
    def _get_subgraphs_to_replace(self) -> list[tuple[list[str], list[str]]]: ...

class SimplifyShapeV2Transformation(AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_replacement: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class _QuantTransformation(AbstractTransformation):
    def _update_tesselquant(
        self, graph: GraphProto, isomorphic_node_mapping: Mapping[int, int], tessel_quant_idx: int
    ) -> None: ...
    def _update_weights(
        self, graph: GraphProto, transpose: bool, weight_names: Sequence[str | None]
    ) -> tuple[TensorProto, tuple[int, ...]]: ...
    def _update_bias(self, graph: GraphProto, bias_names: Sequence[str | None]) -> TensorProto: ...
    def _update_tesseldequant(self, size: tuple[int, ...], scale_name: str | None) -> TensorProto: ...
    def _check_current_precision(
        self, graph: GraphProto, isomorphic_links_mapping: Mapping[str, str], input_name: str
    ) -> bool: ...
    def _update_quant_weights_operators(
        self,
        graph: GraphProto,
        isomorphic_links_mapping: Mapping[str, str],
        input_names: Mapping[str, Sequence[str]],
        mode: str = "conv",
        transpose: bool = False,
    ) -> None: ...

class QuantConvTransformation(_QuantTransformation, AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_replacement_1: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_replacement_2: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class QuantMatMulTransformation(_QuantTransformation, AbstractTransformation):
    subgraph: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_replacement_1: ClassVar[list[str]]
    subgraph_3: ClassVar[list[str]]
    subgraph_replacement_2: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...

class QuantGemmTransformation(_QuantTransformation, AbstractTransformation):
    subgraph_1: ClassVar[list[str]]
    subgraph_replacement_1: ClassVar[list[str]]
    subgraph_2: ClassVar[list[str]]
    subgraph_replacement_2: ClassVar[list[str]]
    def apply(self, graph: GraphProto, debug: bool = False) -> int: ...
    def get_simple_name(self) -> str: ...
    def _on_replace_subgraph(
        self,
        graph: GraphProto,
        replaced_nodes: list[NodeProto],
        isomorphic_node_mapping: dict[int, int],
        isomorphic_links_mapping: dict[str, str],
        **kwargs: Any,
    ) -> bool: ...
