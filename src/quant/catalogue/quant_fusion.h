// Rows: merging two quantize nodes that read one tensor.
//   Quant(x), Op(Quant(x)) -> q = Quant(x), Op(q)
//
// The order of `lists` is that of the class attributes. Data only: the comparison of parameters is in
// families/quant_fusion.cpp.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows {

namespace fuse_quant_any {

inline constexpr std::array conv_with_bias{"TesselQuant:0->1", "Conv:1,2i,3i->4", "TesselQuant:0->5"};
inline constexpr std::array fused_conv_with_bias{"#2", "#1:5,2i,3i->4"};
inline constexpr std::array conv{"TesselQuant:0->1", "Conv:1,2i->4", "TesselQuant:0->5"};
inline constexpr std::array fused_conv{"#2", "#1:5,2i->4"};
inline constexpr std::array pool{"TesselQuant:0->1", "MaxPool:1->4", "TesselQuant:0->5"};
inline constexpr std::array fused_pool{"#2", "#1:5->4"};
inline constexpr std::array resize{"TesselQuant:0->1", "Resize:1,2i,3i,6i->4", "TesselQuant:0->5"};
inline constexpr std::array fused_resize{"#2", "#1:5,2i,3i,6i->4"};

inline constexpr std::array lists{
    PatternList{"subgraph_1", conv_with_bias}, PatternList{"subgraph_rep_1", fused_conv_with_bias},
    PatternList{"subgraph_2", conv},           PatternList{"subgraph_rep_2", fused_conv},
    PatternList{"subgraph_3", pool},           PatternList{"subgraph_rep_3", fused_pool},
    PatternList{"subgraph_4", resize},         PatternList{"subgraph_rep_4", fused_resize},
};
inline const std::array passes{
    pass("subgraph_1", "subgraph_rep_1"),
    pass("subgraph_2", "subgraph_rep_2"),
    pass("subgraph_3", "subgraph_rep_3"),
    pass("subgraph_4", "subgraph_rep_4"),
};
inline constexpr std::array methods{apply_row(apply_passes<passes>), name_row<"replace_quant_any">};
inline constexpr ClassRow row{"FuseTesselQuantAnyTransformation", framework_base,
                              doc<"test of quantization performance">, lists, methods};

}  // namespace fuse_quant_any

namespace change_quant {

inline constexpr std::array bases{"FuseTesselQuantAnyTransformation"};
inline constexpr std::array methods{name_row<"replace_quant">,
                                    callback_row<accept_equal_parameters, Changes::contents>};
inline constexpr ClassRow row{
    "ChangeTesselQuantTransformation", bases, doc<"ResNet, YOLO, MobileNetv3, BERT">, {}, methods};

}  // namespace change_quant

}  // namespace onnxgraft::quant::rows
