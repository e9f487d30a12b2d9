// The methods of the base that `Conv`, `Gemm` and `MatMul` are quantized with.
//
// Weights, biases and scales are drawn at random with the element types and shapes of a quantized model: the
// result serves to measure speed, not accuracy. Draws come from NumPy's global generator, which is never seeded
// here.
#pragma once

#include "quant/graph_view/graph_view.h"

namespace onnxgraft::quant {

/// `_update_tesselquant(self, graph, isomorphic_node_mapping, tessel_quant_idx)`: appends scale 1 and offset 0.
py::Ref update_quantize_node(const py::Call& call, GraphView& view);
/// `_update_weights(self, graph, transpose, weight_names)` -> (INT8 tensor, shape of the old weight).
py::Ref draw_weights(const py::Call& call, GraphView& view);
/// `_update_bias(self, graph, bias_names)` -> INT32 tensor.
py::Ref draw_bias(const py::Call& call, GraphView& view);
/// `_update_tesseldequant(self, size, scale_name)` -> UINT64 tensor of packed scales.
py::Ref draw_scales(const py::Call& call);
/// `_check_current_precision(self, graph, isomorphic_links_mapping, input_name)`: whether it is not INT8 yet.
py::Ref needs_quantizing(const py::Call& call, GraphView& view);
/// `_update_quant_weights_operators(self, graph, isomorphic_links_mapping, input_names, mode, transpose)`.
py::Ref add_quantized_initializers(const py::Call& call, GraphView& view);

}  // namespace onnxgraft::quant
