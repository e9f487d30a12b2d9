// Rows: the operators that are quantized, and their common base.
//   Op(x, w, b) -> Dequant(Op(Quant(x), w8, b32), scale)
//
// The ids of new tensors are those of the roles in families/quantizing_callbacks.cpp. Data only.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"
#include "quant/families/quantized_operators.h"

namespace onnxgraft::quant::rows {

namespace quantize_base {

inline constexpr Parameter self{"self"};
inline constexpr Parameter graph{"graph"};
inline constexpr Parameter links{"isomorphic_links_mapping"};
inline constexpr Parameter size{"size"};

inline constexpr std::array attributes_parameters{self, graph, Parameter{"isomorphic_node_mapping"},
                                                  Parameter{"tessel_quant_idx"}};
inline constexpr std::array weights_parameters{self, graph, Parameter{"transpose"}, Parameter{"weight_names"}};
inline constexpr std::array bias_parameters{self, graph, Parameter{"bias_names"}};
inline constexpr std::array scale_parameters{self, size, Parameter{"scale_name"}};
inline constexpr std::array precision_parameters{self, graph, links, Parameter{"input_name"}};
inline constexpr std::array operators_parameters{
    self,
    graph,
    links,
    Parameter{"input_names"},
    Parameter{"mode", nullptr, Default::text, "conv"},
    Parameter{"transpose", nullptr, Default::false_value},
};

inline constexpr std::array methods{
    FunctionRow{"_update_tesselquant", attributes_parameters, with_view<update_quantize_node>},
    FunctionRow{"_update_weights", weights_parameters, with_view<draw_weights>},
    FunctionRow{"_update_bias", bias_parameters, with_view<draw_bias>},
    FunctionRow{"_update_tesseldequant", scale_parameters, draw_scales},
    FunctionRow{"_check_current_precision", precision_parameters, with_view<needs_quantizing>},
    FunctionRow{"_update_quant_weights_operators", operators_parameters, with_view<add_quantized_initializers>},
};
inline constexpr ClassRow row{"_QuantTransformation", framework_base, doc<"any Neural Network">, {}, methods};

inline constexpr auto names = [] {
  std::array<const char*, methods.size()> all{};
  std::ranges::transform(methods, all.begin(), &FunctionRow::name);
  return all;
}();

}  // namespace quantize_base

/// A callback that calls the methods of the base.
template <ViewBody body>
inline constexpr FunctionRow quantizing_row = [] {
  FunctionRow row = callback_row<body, Changes::contents>;
  row.calls = quantize_base::names;
  return row;
}();

inline constexpr std::array quantize_bases{"_QuantTransformation", "AbstractTransformation"};
// `Conv` and `Gemm` become the same chains: node 0 of the pattern stands for either.
inline constexpr std::array quantized_with_bias{"TesselQuant:0->100", "#0:100,101i,102i->103",
                                                "TesselDequant:103,104i->4"};
inline constexpr std::array quantized{"TesselQuant:0->100", "#0:100,101i->103", "TesselDequant:103,104i->4"};
inline const std::array with_bias_first{
    pass("subgraph_1", "subgraph_replacement_1"),
    pass("subgraph_2", "subgraph_replacement_2"),
};

namespace quant_conv {

inline constexpr std::array with_bias{"Conv:0,1i,2i->4"};
inline constexpr std::array without_bias{"Conv:0,1i->4"};

inline constexpr std::array lists{
    PatternList{"subgraph_1", with_bias},
    PatternList{"subgraph_replacement_1", quantized_with_bias},
    PatternList{"subgraph_2", without_bias},
    PatternList{"subgraph_replacement_2", quantized},
};
inline constexpr std::array methods{apply_row(apply_passes<with_bias_first>), name_row<"quant_conv">,
                                    quantizing_row<quantize_conv>};
inline constexpr ClassRow row{"QuantConvTransformation", quantize_bases, doc<"any CV model">, lists, methods};

}  // namespace quant_conv

namespace quant_matmul {

inline constexpr std::array added_second{"MatMul:0,1i->2", "Add:2,3i->4"};
inline constexpr std::array added_first{"MatMul:0,1i->2", "Add:3i,2->4"};
inline constexpr std::array quantized_sum{"TesselQuant:0->100", "#0:100,101i->102", "Add:102,103i->104",
                                          "TesselDequant:104,105i->4"};
inline constexpr std::array product{"MatMul:0,1i->2"};
inline constexpr std::array quantized_product{"TesselQuant:0->100", "#0:100,101i->102", "TesselDequant:102,105i->2"};

inline constexpr std::array lists{
    PatternList{"subgraph", added_second},
    PatternList{"subgraph_2", added_first},
    PatternList{"subgraph_replacement_1", quantized_sum},
    PatternList{"subgraph_3", product},
    PatternList{"subgraph_replacement_2", quantized_product},
};
inline const std::array passes{
    pass("subgraph", "subgraph_replacement_1"),
    pass("subgraph_2", "subgraph_replacement_1"),
    pass("subgraph_3", "subgraph_replacement_2"),
};
inline constexpr std::array methods{apply_row(apply_passes<passes>), name_row<"quant_matmul">,
                                    quantizing_row<quantize_matmul>};
inline constexpr ClassRow row{"QuantMatMulTransformation", quantize_bases, doc<"NLP and CV models">, lists, methods};

}  // namespace quant_matmul

namespace quant_gemm {

inline constexpr std::array with_bias{"Gemm:0,1i,2i->4"};
inline constexpr std::array without_bias{"Gemm:0,1i->4"};

inline constexpr std::array lists{
    PatternList{"subgraph_1", with_bias},
    PatternList{"subgraph_replacement_1", quantized_with_bias},
    PatternList{"subgraph_2", without_bias},
    PatternList{"subgraph_replacement_2", quantized},
};
inline constexpr std::array methods{apply_row(apply_passes<with_bias_first>), name_row<"quant_gemm">,
                                    quantizing_row<quantize_gemm>};
inline constexpr ClassRow row{"QuantGemmTransformation", quantize_bases, doc<"NLP and CV models">, lists, methods};

}  // namespace quant_gemm

}  // namespace onnxgraft::quant::rows
