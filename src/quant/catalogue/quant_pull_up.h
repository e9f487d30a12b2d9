// Rows: the base of the pull-up family, and the pull-up through a concatenation of two to six inputs.
//   Quant(Concat(x1 .. xk)) -> Concat(Quant(x1) .. Quant(xk))
//
// The output of the quantize node is 99, by which the callback finds it. Data only.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows {

namespace pull_up {

inline constexpr std::array bases{"AbstractTransformation", "ABC"};
inline constexpr std::array methods{
    apply_row(apply_listed_pairs),
    FunctionRow{
        .name = "_get_subgraphs_to_replace",
        .parameters = self_alone,
        .body = no_pairs,
        .result_annotation = pairs_annotation,
        .is_abstract = true,
    },
    callback_row<correct_conv_biases, Changes::bias_inputs>,
};
inline constexpr ClassRow row{"AbstractPullUpTesselQuantTransformation", bases, nullptr, {}, methods};

}  // namespace pull_up

namespace change_quant_v2 {

inline constexpr std::array join_2{"Concat:1,2->11", "TesselQuant:11->99"};
inline constexpr std::array pulled_2{"#1:1->101", "#1:2->102", "#0:101,102->99"};
inline constexpr std::array join_3{"Concat:1,2,3->11", "TesselQuant:11->99"};
inline constexpr std::array pulled_3{"#1:1->101", "#1:2->102", "#1:3->103", "#0:101,102,103->99"};
inline constexpr std::array join_4{"Concat:1,2,3,4->11", "TesselQuant:11->99"};
inline constexpr std::array pulled_4{"#1:1->101", "#1:2->102", "#1:3->103", "#1:4->104", "#0:101,102,103,104->99"};
inline constexpr std::array join_5{"Concat:1,2,3,4,5->11", "TesselQuant:11->99"};
inline constexpr std::array pulled_5{"#1:1->101", "#1:2->102", "#1:3->103",
                                     "#1:4->104", "#1:5->105", "#0:101,102,103,104,105->99"};
inline constexpr std::array join_6{"Concat:1,2,3,4,5,6->11", "TesselQuant:11->99"};
inline constexpr std::array pulled_6{
    "#1:1->101", "#1:2->102", "#1:3->103", "#1:4->104", "#1:5->105", "#1:6->106", "#0:101,102,103,104,105,106->99"};

inline constexpr std::array lists{
    PatternList{"subgraph_2", join_2}, PatternList{"subgraph_replacement_2", pulled_2},
    PatternList{"subgraph_3", join_3}, PatternList{"subgraph_replacement_3", pulled_3},
    PatternList{"subgraph_4", join_4}, PatternList{"subgraph_replacement_4", pulled_4},
    PatternList{"subgraph_5", join_5}, PatternList{"subgraph_replacement_5", pulled_5},
    PatternList{"subgraph_6", join_6}, PatternList{"subgraph_replacement_6", pulled_6},
};
inline const std::array passes{
    pass("subgraph_2", "subgraph_replacement_2"), pass("subgraph_3", "subgraph_replacement_3"),
    pass("subgraph_4", "subgraph_replacement_4"), pass("subgraph_5", "subgraph_replacement_5"),
    pass("subgraph_6", "subgraph_replacement_6"),
};
inline constexpr ClassRow row{"ChangeTesselQuantTransformationV2", pull_up_base, doc<"YOLO, U2Net">, lists,
                              pull_up_methods<"replace_quant_v2", passes>};

}  // namespace change_quant_v2

}  // namespace onnxgraft::quant::rows
