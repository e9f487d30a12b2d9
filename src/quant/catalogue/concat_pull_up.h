// Rows: pull-up through the concatenations of one family of networks, by what feeds them (V1 to V10).
//
// Every pattern ends with the concatenation and its quantize node, whose output is 99 in pattern and replacement. The
// order of `lists` is that of the class attributes.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows {

inline constexpr const char* yolo5_doc = doc<"YOLO, YOLO5s1">;
// Seven blanks where the others have eight.
inline constexpr const char* short_indent_doc = "\n       Transformation prepared for YOLO, YOLO5s1\n    ";

namespace concat_v1 {

// The second pair joins the tensors in another order, (3, 4, 1, 2), than the concatenation that it replaces.
inline constexpr std::array pools_after_input{"MaxPool:1->2", "MaxPool:1->3", "MaxPool:1->4", "Concat:1,2,3,4->5",
                                              "TesselQuant:5->99"};
inline constexpr std::array pools_before_input{"MaxPool:1->2", "MaxPool:1->3", "MaxPool:1->4", "Concat:2,3,4,1->5",
                                               "TesselQuant:5->99"};
inline constexpr std::array pulled_after_input{"#0",        "#1",        "#2",        "#4:1->100",
                                               "#4:2->101", "#4:3->102", "#4:4->103", "#3:100,101,102,103->99"};
inline constexpr std::array pulled_before_input{"#0",        "#1",        "#2",        "#4:2->100",
                                                "#4:3->101", "#4:4->102", "#4:1->103", "#3:101,102,103,100->99"};

inline constexpr std::array lists{
    PatternList{"subgraph1", pools_after_input},
    PatternList{"subgraph2", pools_before_input},
    PatternList{"subgraph_replacement1", pulled_after_input},
    PatternList{"subgraph_replacement2", pulled_before_input},
};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV1", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v1", two_pairs>};

}  // namespace concat_v1

namespace concat_v2 {

inline constexpr std::array joined{"LeakyRelu:1->2", "LeakyRelu:3->4", "Concat:2,4->5", "TesselQuant:5->99"};
inline constexpr std::array pulled{"#0", "#1", "#3:2->100", "#3:4->101", "#2:100,101->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV2", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v2", one_pair>};

}  // namespace concat_v2

namespace concat_v3 {

inline constexpr std::array resized_second{"LeakyRelu:1->2", "LeakyRelu:3->4", "Resize:4,5i,6i->7", "Concat:2,7->8",
                                           "TesselQuant:8->99"};
inline constexpr std::array resized_first{"LeakyRelu:1->2", "LeakyRelu:3->4", "Resize:4,5i,6i->7", "Concat:7,2->8",
                                          "TesselQuant:8->99"};
inline constexpr std::array pulled_second{"#0", "#1", "#4:2->100", "#2", "#4:7->101", "#3:100,101->99"};
inline constexpr std::array pulled_first{"#0", "#1", "#4:2->100", "#2", "#4:7->101", "#3:101,100->99"};

inline constexpr std::array lists{
    PatternList{"subgraph1", resized_second},
    PatternList{"subgraph2", resized_first},
    PatternList{"subgraph_replacement1", pulled_second},
    PatternList{"subgraph_replacement2", pulled_first},
};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV3", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v3", two_pairs>};

}  // namespace concat_v3

namespace concat_v4 {

inline constexpr std::array joined{"Mul:1,2->3", "Mul:4,5->6", "Resize:6,7i,8i->9", "Concat:9,3->10",
                                   "TesselQuant:10->99"};
inline constexpr std::array pulled{"#0", "#1", "#4:3->100", "#2", "#4:9->101", "#3:101,100->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV4", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v4", one_pair>};

}  // namespace concat_v4

namespace concat_v5 {

inline constexpr std::array joined{"Mul:1,2->3", "Mul:4,5->6", "Concat:6,3->7", "TesselQuant:7->99"};
inline constexpr std::array pulled{"#0", "#1", "#3:3->100", "#3:6->101", "#2:101,100->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV5", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v5", one_pair>};

}  // namespace concat_v5

namespace concat_v6 {

// Both pairs share one replacement.
inline constexpr std::array sum_first{"Add:1,2->3", "Mul:4,5->6", "Concat:3,6->7", "TesselQuant:7->99"};
inline constexpr std::array product_first{"Mul:1,2->3", "Add:4,5->6", "Concat:3,6->7", "TesselQuant:7->99"};
inline constexpr std::array pulled{"#0", "#1", "#3:3->100", "#3:6->101", "#2:100,101->99"};

inline constexpr std::array lists{
    PatternList{"subgraph1", sum_first},
    PatternList{"subgraph2", product_first},
    PatternList{"subgraph_replacement", pulled},
};
inline const std::array passes{
    pass("subgraph1", "subgraph_replacement"),
    pass("subgraph2", "subgraph_replacement"),
};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV6", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v6", passes>};

}  // namespace concat_v6

namespace concat_v7 {

inline constexpr std::array product_after{"Resize:1,~i->3", "Mul:4,5->6", "Concat:3,6->7", "TesselQuant:7->99"};
inline constexpr std::array pulled_in_order{"#0", "#1", "#3:3->100", "#3:6->101", "#2:100,101->99"};
inline constexpr std::array product_before{"Resize:1,~i->3", "Mul:4,5->6", "Concat:6,3->7", "TesselQuant:7->99"};
inline constexpr std::array pulled_swapped{"#0", "#1", "#3:3->100", "#3:6->101", "#2:101,100->99"};
inline constexpr std::array sum_after{"Resize:1,~i->3", "Add:4,5->6", "Concat:3,6->7", "TesselQuant:7->99"};
inline constexpr std::array sum_before{"Resize:1,~i->3", "Add:4,5->6", "Concat:6,3->7", "TesselQuant:7->99"};

inline constexpr std::array lists{
    PatternList{"subgraph1", product_after},  PatternList{"subgraph_replacement1", pulled_in_order},
    PatternList{"subgraph2", product_before}, PatternList{"subgraph_replacement2", pulled_swapped},
    PatternList{"subgraph3", sum_after},      PatternList{"subgraph_replacement3", pulled_in_order},
    PatternList{"subgraph4", sum_before},     PatternList{"subgraph_replacement4", pulled_swapped},
};
inline const std::array passes{
    pass("subgraph1", "subgraph_replacement1"),
    pass("subgraph2", "subgraph_replacement2"),
    pass("subgraph3", "subgraph_replacement3"),
    pass("subgraph4", "subgraph_replacement4"),
};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV7", pull_up_base, short_indent_doc, lists,
                              pull_up_methods<"replace_concat_quant_v7", passes>};

}  // namespace concat_v7

namespace concat_v8 {

inline constexpr std::array joined{"MaxPool:0->1", "MaxPool:1->2", "MaxPool:2->3", "Concat:0,1,2,3->7",
                                   "TesselQuant:7->99"};
inline constexpr std::array pulled{"#0",        "#1",        "#2",        "#4:0->103",
                                   "#4:1->100", "#4:2->101", "#4:3->102", "#3:103,100,101,102->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV8", pull_up_base, yolo5_doc, lists,
                              pull_up_methods<"replace_concat_quant_v8", one_pair>};

}  // namespace concat_v8

namespace concat_v9 {

inline constexpr std::array joined{"TesselDequant:1,2i->3", "LeakyRelu:3->4",      "TesselDequant:5,6i->7",
                                   "LeakyRelu:7->8",        "Concat:4,9,10,8->11", "TesselQuant:11->99"};
inline constexpr std::array pulled{
    "#0", "#1", "#2", "#3", "#5:4->100", "#5:8->101", "#5:9->102", "#5:10->103", "#4:100,102,103,101->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV9", pull_up_base, doc<"YOLOV7">, lists,
                              pull_up_methods<"replace_concat_quant_v9", one_pair>};

}  // namespace concat_v9

namespace concat_v10 {

// Only where every input is a product fed by a dequantize node, which the callback tests.
inline constexpr std::array joined{"Concat:1,2,3,4,5->6", "TesselQuant:6->99"};
inline constexpr std::array pulled{"#1:1->101", "#1:2->102", "#1:3->103",
                                   "#1:4->104", "#1:5->105", "#0:101,102,103,104,105->99"};

inline constexpr auto lists = one_pair_of(joined, pulled);
inline constexpr std::array methods{name_row<"replace_concat_quant_v10">,
                                    extending_callback_row<require_dequantized_products, Changes::bias_inputs>,
                                    pairs_row<one_pair>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV10", pull_up_base, doc<"YOLOV7X">, lists, methods};

}  // namespace concat_v10

}  // namespace onnxgraft::quant::rows
