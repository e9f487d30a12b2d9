// What happens to one occurrence after its replacement was spliced in: one function per class that has a
// `_on_replace_subgraph` of its own. Each returns True (done) or False (refused, before anything is written). Of the
// graph they know the view.
#pragma once

#include "py/function.h"
#include "quant/graph_view/graph_view.h"

namespace onnxgraft::quant {

/// Positions of the arguments of a callback.
namespace callback {
inline constexpr std::size_t self = 0;
inline constexpr std::size_t graph = 1;
inline constexpr std::size_t replaced_nodes = 2;
inline constexpr std::size_t node_mapping = 3;
inline constexpr std::size_t links = 4;
}  // namespace callback

py::Ref quantize_conv(const py::Call& call, GraphView& view);
py::Ref quantize_matmul(const py::Call& call, GraphView& view);
py::Ref quantize_gemm(const py::Call& call, GraphView& view);
py::Ref accept_equal_parameters(const py::Call& call, GraphView& view);
py::Ref rescale_for_new_parameters(const py::Call& call, GraphView& view);
py::Ref correct_conv_biases(const py::Call& call, GraphView& view);
py::Ref require_dequantized_products(const py::Call& call, GraphView& view);
py::Ref make_float_convolutions(const py::Call& call, GraphView& view);
py::Ref add_folded_biases(const py::Call& call, GraphView& view);
py::Ref give_resize_attributes(const py::Call& call, GraphView& view);
py::Ref make_constant_sizes(const py::Call& call, GraphView& view);

}  // namespace onnxgraft::quant
