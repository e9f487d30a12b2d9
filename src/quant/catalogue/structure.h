// Rows: rewrites of pooling, concatenation, normalization, resizing and shape computation around quantized nodes.
//
// Callbacks find tensors by the ids in these lists. Data only: what is computed is in families/.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows {

namespace change_pool {

inline constexpr std::array swish_block{"GlobalAveragePool:0->1", "TesselQuant:1->2",    "Conv:2,3i,4i->5",
                                        "TesselDequant:5,6i->7",  "Sigmoid:7->8",        "Mul:7,8->9",
                                        "TesselQuant:9->10",      "Conv:10,11i,12i->13", "TesselDequant:13,14i->15",
                                        "Sigmoid:15->16"};
inline constexpr std::array float_swish_block{"#0:0->1",   "#2:1,100i,101i->5",  "#4:5->8",
                                              "#5:5,8->9", "#7:9,102i,103i->15", "#9"};
inline constexpr std::array relu_block{
    "GlobalAveragePool:0->1", "TesselQuant:1->2",    "Conv:2,3i,4i->5",          "TesselDequant:5,6i->7", "Relu:7->9",
    "TesselQuant:9->10",      "Conv:10,11i,12i->13", "TesselDequant:13,14i->15", "Sigmoid:15->16"};
inline constexpr std::array float_relu_block{"#0", "#2:1,100i,101i->5", "#4:5->9", "#6:9,102i,103i->15", "#8"};

inline constexpr std::array lists{
    PatternList{"subgraph_1", swish_block},
    PatternList{"subgraph_rep_1", float_swish_block},
    PatternList{"subgraph_2", relu_block},
    PatternList{"subgraph_rep_2", float_relu_block},
};
inline const std::array passes{pass("subgraph_1", "subgraph_rep_1"), pass("subgraph_2", "subgraph_rep_2")};
inline constexpr std::array methods{apply_row(apply_passes<passes>), name_row<"change_gap_conv">,
                                    callback_row<make_float_convolutions, Changes::contents>};
inline constexpr ClassRow row{"ChangeGAPCONVTransformation", framework_base, doc<"EfficientNetB0, SeResNet">, lists,
                              methods};

}  // namespace change_pool

namespace delete_concat {

inline constexpr std::array joined{"TesselQuant:1->2",       "TesselQuant:3->4", "Concat:2,4->5",     "Conv:5,6i,7i->8",
                                   "TesselDequant:8,9i->10", "LeakyRelu:10->11", "TesselQuant:12->13"};
inline constexpr std::array summed{
    "#0", "#3:2,6i,7i->100", "#4:100,9i->102", "#1", "#3:4,6i,7i->101", "#4:101,9i->103", "Add:102,103->10", "#5",
    "#6"};

inline constexpr auto lists = one_pair_of(joined, summed);
inline constexpr std::array methods{apply_row(apply_passes<one_pair>), name_row<"delete_concat">};
inline constexpr ClassRow row{"DeleteConcatTransformation", framework_base, doc<"YOLO">, lists, methods};

}  // namespace delete_concat

namespace fuse_normalization {

inline constexpr std::array normalized{"TesselQuant:0->1",      "Conv:1,2i->3",
                                       "TesselDequant:3,4i->5", "TesselQuant:6->7",
                                       "Conv:7,8i->9",          "TesselDequant:9,10i->11",
                                       "Concat:5,11->12",       "BatchNormalization:12,13i,14i,15i,16i->17",
                                       "LeakyRelu:17->18"};
inline constexpr std::array folded{"#0",         "#1:1,2i,101i->3", "#2:3,4i->102",  "#8:102->5",
                                   "#3",         "#4:7,8i,103i->9", "#5:9,10i->104", "#8:104->11",
                                   "#6:5,11->18"};

inline constexpr auto lists = one_pair_of(normalized, folded);
inline constexpr std::array methods{apply_row(apply_passes<one_pair>), name_row<"fuse_bn_quant">,
                                    callback_row<add_folded_biases, Changes::contents, py::ArgumentType::dict_or_none>};
inline constexpr ClassRow row{"FuseQuantBatchNormTransformation", framework_base, doc<"YOLO, YOLO5s1">, lists, methods};

}  // namespace fuse_normalization

namespace resize_quant {

inline constexpr std::array resized{"Resize:2,3i,9i,10i->4", "TesselQuant:4->8"};
inline constexpr std::array pulled{"#1:2->100", "Resize:100,3i,9i,10i->8"};

inline constexpr auto lists = one_pair_of(resized, pulled);
inline constexpr std::array methods{name_row<"replace_resize_quant">,
                                    extending_callback_row<give_resize_attributes, Changes::bias_inputs>,
                                    pairs_row<one_pair>};
inline constexpr ClassRow row{"ReplaceResizeQuantTransformation", pull_up_base, doc<"U2Net">, lists, methods};

}  // namespace resize_quant

namespace simplify_shape {

inline constexpr std::array computed{"Shape:1->3", "Slice:3,4i,5i,6i->7", "Concat:7,8i,9i->10",
                                     "Resize:1,11i,12i,10->14"};
inline constexpr std::array constant{"#3:1,11i,12i,101i->14"};

inline constexpr std::array lists{PatternList{"subgraph_1", computed}, PatternList{"subgraph_replacement", constant}};
inline const std::array passes{pass("subgraph_1", "subgraph_replacement")};
inline constexpr std::array methods{apply_row(apply_passes<passes>), name_row<"simplify_shape_v2">,
                                    callback_row<make_constant_sizes, Changes::contents>};
inline constexpr ClassRow row{"SimplifyShapeV2Transformation", framework_base, doc<"U2Net">, lists, methods};

}  // namespace simplify_shape

}  // namespace onnxgraft::quant::rows
