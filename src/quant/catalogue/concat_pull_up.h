// Rows: pull-up through the concatenations of one family, by what feeds them (V1 to V5).
// Every pattern ends with the concatenation and its quantize node, whose output is 99 in pattern and replacement.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows {

inline constexpr const char* yolo5_doc = doc<"YOLO, YOLO5s1">;

namespace concat_v1 {

// The second pair joins the tensors in another order, (3, 4, 1, 2), than the concatenation that it replaces.
inline constexpr std::array pools_behind_input{"MaxPool:1->2", "MaxPool:1->3", "MaxPool:1->4", "Concat:1,2,3,4->5",
                                               "TesselQuant:5->99"};
inline constexpr std::array pools_before_input{"MaxPool:1->2", "MaxPool:1->3", "MaxPool:1->4", "Concat:2,3,4,1->5",
                                               "TesselQuant:5->99"};
inline constexpr std::array pulled_behind_input{"#0",        "#1",        "#2",        "#4:1->100",
                                                "#4:2->101", "#4:3->102", "#4:4->103", "#3:100,101,102,103->99"};
inline constexpr std::array pulled_before_input{"#0",        "#1",        "#2",        "#4:2->100",
                                                "#4:3->101", "#4:4->102", "#4:1->103", "#3:101,102,103,100->99"};

inline constexpr std::array lists{
    PatternList{"subgraph1", pools_behind_input},
    PatternList{"subgraph2", pools_before_input},
    PatternList{"subgraph_replacement1", pulled_behind_input},
    PatternList{"subgraph_replacement2", pulled_before_input},
};
inline const std::array passes{
    pass("subgraph1", "subgraph_replacement1"),
    pass("subgraph2", "subgraph_replacement2"),
};
inline constexpr std::array methods{name_row<"replace_concat_quant_v1">, pairs_row<passes>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV1", pull_up_base, yolo5_doc, lists, methods};

}  // namespace concat_v1

namespace concat_v2 {

inline constexpr std::array joined{"LeakyRelu:1->2", "LeakyRelu:3->4", "Concat:2,4->5", "TesselQuant:5->99"};
inline constexpr std::array pulled{"#0", "#1", "#3:2->100", "#3:4->101", "#2:100,101->99"};

inline constexpr std::array lists{
    PatternList{"subgraph", joined},
    PatternList{"subgraph_replacement", pulled},
};
inline const std::array passes{
    pass("subgraph", "subgraph_replacement"),
};
inline constexpr std::array methods{name_row<"replace_concat_quant_v2">, pairs_row<passes>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV2", pull_up_base, yolo5_doc, lists, methods};

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
inline const std::array passes{
    pass("subgraph1", "subgraph_replacement1"),
    pass("subgraph2", "subgraph_replacement2"),
};
inline constexpr std::array methods{name_row<"replace_concat_quant_v3">, pairs_row<passes>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV3", pull_up_base, yolo5_doc, lists, methods};

}  // namespace concat_v3

namespace concat_v4 {

inline constexpr std::array joined{"Mul:1,2->3", "Mul:4,5->6", "Resize:6,7i,8i->9", "Concat:9,3->10",
                                   "TesselQuant:10->99"};
inline constexpr std::array pulled{"#0", "#1", "#4:3->100", "#2", "#4:9->101", "#3:101,100->99"};

inline constexpr std::array lists{
    PatternList{"subgraph", joined},
    PatternList{"subgraph_replacement", pulled},
};
inline const std::array passes{
    pass("subgraph", "subgraph_replacement"),
};
inline constexpr std::array methods{name_row<"replace_concat_quant_v4">, pairs_row<passes>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV4", pull_up_base, yolo5_doc, lists, methods};

}  // namespace concat_v4

namespace concat_v5 {

inline constexpr std::array joined{"Mul:1,2->3", "Mul:4,5->6", "Concat:6,3->7", "TesselQuant:7->99"};
inline constexpr std::array pulled{"#0", "#1", "#3:3->100", "#3:6->101", "#2:101,100->99"};

inline constexpr std::array lists{
    PatternList{"subgraph", joined},
    PatternList{"subgraph_replacement", pulled},
};
inline const std::array passes{
    pass("subgraph", "subgraph_replacement"),
};
inline constexpr std::array methods{name_row<"replace_concat_quant_v5">, pairs_row<passes>};
inline constexpr ClassRow row{"ReplaceConcatQuantTransformationV5", pull_up_base, yolo5_doc, lists, methods};

}  // namespace concat_v5

}  // namespace onnxgraft::quant::rows
