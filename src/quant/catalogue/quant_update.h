// Row: the quantize node before a convolution takes the parameters of the one after a concatenation.
//   Quant_a(x), Concat(.., x, ..) -> Quant_b  becomes  Quant_b(x), Concat(.., x, ..) -> Quant_b
//
// The callback relies on the positions in `around` and `updated`. Data only.
#pragma once

#include "quant/catalogue/rows.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant::rows::update_quant {

/// The pattern around one form of the concatenation.
constexpr std::array<const char*, 5> around(const char* concat) {
  return {"TesselQuant:0->1", "Conv:1,2i,3i->4", "TesselDequant:4,6i->5", concat, "TesselQuant:18->19"};
}

inline constexpr auto second_of_four = around("Concat:15,0,16,17->18");
inline constexpr auto third_of_four = around("Concat:15,16,0,17->18");
inline constexpr auto second_of_two = around("Concat:15,0->18");
inline constexpr auto second_of_five = around("Concat:14,0,15,16,17->18");
inline constexpr auto third_of_five = around("Concat:14,15,0,16,17->18");
inline constexpr auto fourth_of_five = around("Concat:14,15,16,0,17->18");
inline constexpr std::array updated{"#4:0->1", "#1", "#2", "#3", "#4"};

inline constexpr std::array lists{
    PatternList{"subgraph_1", second_of_four}, PatternList{"subgraph_rep_1", updated},
    PatternList{"subgraph_2", third_of_four},  PatternList{"subgraph_rep_2", updated},
    PatternList{"subgraph_3", second_of_two},  PatternList{"subgraph_rep_3", updated},
    PatternList{"subgraph_4", second_of_five}, PatternList{"subgraph_rep_4", updated},
    PatternList{"subgraph_5", third_of_five},  PatternList{"subgraph_rep_5", updated},
    PatternList{"subgraph_6", fourth_of_five}, PatternList{"subgraph_rep_6", updated},
};
inline const std::array passes{
    pass("subgraph_1", "subgraph_rep_1"), pass("subgraph_2", "subgraph_rep_2"), pass("subgraph_3", "subgraph_rep_3"),
    pass("subgraph_4", "subgraph_rep_4"), pass("subgraph_5", "subgraph_rep_5"), pass("subgraph_6", "subgraph_rep_6"),
};
// This `apply` declares no result type, so its sum is handed on unchecked.
inline constexpr std::array methods{
    apply_row(apply_passes<passes, Counting::unchecked>, nullptr),
    name_row<"update_tesselquant">,
    callback_row<rescale_for_new_parameters, Changes::contents>,
};
inline constexpr ClassRow row{"UpdateTesselQuantTransformation", framework_base, doc<"YOLOv7">, lists, methods};

}  // namespace onnxgraft::quant::rows::update_quant
