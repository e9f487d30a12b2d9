"""THE table of steps, in the order in which they run: a later step may need the result of an earlier one."""

from __future__ import annotations

import types
from collections.abc import Callable, Mapping
from dataclasses import dataclass

from onnxgraft.preparation.auto_pads import write_pads
from onnxgraft.preparation.batch_norms import fold_batch_norms
from onnxgraft.preparation.constants import make_initializers
from onnxgraft.preparation.convolutions import write_conv_group
from onnxgraft.preparation.folding import fold_constants
from onnxgraft.preparation.functions import inline_functions
from onnxgraft.preparation.identities import resolve_identities
from onnxgraft.preparation.means import pool_means
from onnxgraft.preparation.merging import merge_equal_nodes
from onnxgraft.preparation.no_ops import drop_no_ops
from onnxgraft.preparation.resizes import fill_resize_inputs, split_resize_sizes
from onnxgraft.preparation.sorting import sort_nodes
from onnxgraft.preparation.transposes import fold_transposes
from onnxgraft.preparation.value_infos import infer_shapes
from onnxgraft.preparation.workpiece import Workpiece


@dataclass(frozen=True)
class Step:
    """One step: changes the graph in place and returns how many places it changed."""

    name: str
    summary: str
    run: Callable[[Workpiece], int]


_ALL = (
    Step("inline_functions", "calls of the model's functions become the nodes of these functions", inline_functions),
    Step("sort_nodes", "nodes come after the producers of what they read", sort_nodes),
    Step("make_initializers", "outputs of Constant nodes become initializers", make_initializers),
    Step("resolve_identities", "readers of an Identity read what it reads", resolve_identities),
    Step("fold_transposes", "a Transpose of an initializer becomes an initializer", fold_transposes),
    Step("fold_constants", "nodes that read only initializers become an initializer", fold_constants),
    Step("drop_no_ops", "readers of a Slice, Pad, Cast, Dropout or Concat without effect read its input", drop_no_ops),
    Step("write_conv_group", "a Conv without group gets the default, 1, written out", write_conv_group),
    Step("write_pads", "auto_pad becomes pads, where the lengths are known", write_pads),
    Step("fill_resize_inputs", "omitted roi and scales of a Resize become empty initializers", fill_resize_inputs),
    Step("split_resize_sizes", "constant height and width after a sliced shape become two", split_resize_sizes),
    Step("pool_means", "a ReduceMean over the spatial axes becomes a GlobalAveragePool", pool_means),
    Step("merge_equal_nodes", "nodes that compute the same from the same become one", merge_equal_nodes),
    Step("fold_batch_norms", "a BatchNormalization of a convolution's output goes into its weights", fold_batch_norms),
    Step("infer_shapes", "value_info gets the shapes that can be inferred", infer_shapes),
)

STEPS: Mapping[str, Step] = types.MappingProxyType({step.name: step for step in _ALL})
