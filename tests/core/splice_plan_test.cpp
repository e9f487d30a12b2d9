// What new nodes and tensors are called, and whether copies take over names. Where they stand is compared with a slow
// model by the tests of the package, which does not look at invented names.
#include "core/splice_plan.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

struct Case {
  const char* what;
  const char* graph;
  const char* pattern;
  const char* replacement;
  Texts expected;  // the whole list behind the splice
};

const char* const conv = "Conv:0,1i->4";
const char* const quantized = "Quant:0->100 #0:100,101i->103 Dequant:103,104i->4";
// clang-format off: a table
const Case name_cases[] = {
    {"a new node is named after what it stands beside", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "C:0->9 #0:9->1 #1",
     {"a_C: C x -> x_C", "a: A x_C -> u", "b: B u -> y"}},
    {"a copy of a kept node leaves a name to the node's own copy", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2",
     "#1 #0:0->9 #1:9->1", {"a: A x -> u_A", "b_1: B u_A -> u", "b: B u -> y"}},
    {"a new node between two others is named after the second", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "#0 C:1->9 #1:9->2",
     {"a: A x -> u", "b_C: C u -> u_C", "b: B u_C -> y"}},
    {"names in use are left out",
     "init w,y_input_1; c_Quant: Neg p -> x_Quant; c: Conv x,w -> y; w_new: Neg y -> y_Conv", conv, quantized,
     {"c_Quant: Neg p -> x_Quant", "c_Quant_1: Quant x -> x_Quant_1", "c: Conv x_Quant_1,w_new_1 -> y_Conv_1", "c_Dequant: Dequant y_Conv_1,y_input_1_1 -> y", "w_new: Neg y -> y_Conv"}},
    {"occurrences do not share new names", "a: A x -> u; a: A x -> v", "A:0->1", "C:0->9 D:9->1",
     {"a_C: C x -> x_C", "a_D: D x_C -> u", "a_C_1: C x -> x_C_1", "a_D_1: D x_C_1 -> v"}},
    {"the first copy has the name, a second a new one", "a: A x -> u", "A:0->1", "#0:0->8 #0:8->1",
     {"a: A x -> u_A", "a_1: A u_A -> u"}},
};
// clang-format on

TEST(SplicePlan, NamesWhatItAdds) {
  for (const Case& test : name_cases) {
    GraphTable table = make_graph(test.graph);
    const Rule rule = make_rule(test.pattern, test.replacement);
    OccurrenceList found = search(table, rule);
    const SplicePlan plan(table, rule, found);
    Texts lines;
    for (const NodeIndex node : plan.arrange(all_nodes(table), std::vector<bool>(found.size(), true))) {
      lines.push_back(node_line(table, node));
    }
    EXPECT_EQ(lines, test.expected) << test.what;
  }
}

}  // namespace
}  // namespace onnxgraft::core
