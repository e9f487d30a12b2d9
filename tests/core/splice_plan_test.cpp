// Names of new nodes and tensors, and whether copies keep names. The package's tests compare places with a slow model,
// but they do not look at new names.
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
  Texts expected;  // the whole list after the splice
};

const char* const conv = "Conv:0,1i->4";
const char* const quantized = "Quant:0->100 #0:100,101i->103 Dequant:103,104i->4";
// clang-format off: a table
const Case name_cases[] = {
    {"a new node is named after its neighbour", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "C:0->9 #0:9->1 #1",
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
const Case place_cases[] = {
    {"copies before a kept node, in their order", "a: A x -> u", "A:0->1", "#0:0->8 #0:8->9 #0", {"a_1: A x -> u_A", "a_2: A u_A -> u_A_1", "a: A x -> u"}},
    {"several new nodes before the next entry, and after the last", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "#0 C:1->7 D:7->8 #1:8->9 E:9->10 F:10->2",
     {"a: A x -> u", "b_C: C u -> u_C", "b_D: D u_C -> u_C_D", "b: B u_C_D -> y_B", "b_E: E y_B -> y_B_E", "b_F: F y_B_E -> y"}},
    {"a new node before each of two", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "C:0->7 #0:7->1 D:1->8 #1:8->2",
     {"a_C: C x -> x_C", "a: A x_C -> u", "b_D: D u -> u_D", "b: B u_D -> y"}},
    {"new nodes alone take the place of the last one", "a: A x -> u; m: M x -> m; b: B u -> y", "A:0->1 B:1->2", "C:0->9 D:9->2", {"m: M x -> m", "b_C: C x -> x_C", "b_D: D x_C -> y"}},
    {"a producer moves up", "a: A x -> a; n: N x -> n; b: B n -> b; c: C a -> c", "A:0->1 B:2->3", "#0:0,3->1 #1", {"n: N x -> n", "b: B n -> b", "a: A x,b -> a", "c: C a -> c"}},
    {"a copy keeps bodies and what they read", "i: If p -> y reads x", "If:0->1", "#0:0,9i->1", {"i: If p,y_input_1 -> y reads x"}},
    {"a copy of a kept node takes the name of the node that it replaces", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "#0 #0:1->2", {"a: A x -> u", "b: A u -> y"}},
    {"but not of one that is copied itself", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "#0 #1:1->9 #0:9->2", {"a: A x -> u", "b: B u -> y_B", "a_1: A y_B -> y"}},
    {"new initializers at any input", "a: A x -> u", "A:0->1", "C:8i,0,9i->1", {"a_C: C u_input_0,x,u_input_2 -> u"}},
    {"nameless nodes go by their tensors", "A x -> u", "A:0->1", "#0:0->9 C:9->1", {"A x -> u_A", "u_node_C: C u_A -> u"}},
};
// clang-format on

Texts spliced(const Case& test) {
  GraphTable table = make_graph(test.graph);
  const Rule rule = make_rule(test.pattern, test.replacement);
  OccurrenceList found = search(table, rule);
  const SplicePlan plan(table, rule, found);
  EXPECT_EQ(plan.arrange(all_nodes(table), std::vector<bool>(found.size(), false)), all_nodes(table)) << test.what;
  Texts lines;
  for (const NodeIndex node : plan.arrange(all_nodes(table), std::vector<bool>(found.size(), true))) {
    lines.push_back(node_line(table, node));
  }
  return lines;
}

TEST(SplicePlan, PlacesNewNodes) {
  for (const Case& test : place_cases) EXPECT_EQ(spliced(test), test.expected) << test.what;
}

TEST(SplicePlan, ArrangesAnyOfTheOccurrences) {
  GraphTable table = make_graph("A x -> a; A y -> b; A z -> c");
  const Rule rule = make_rule("A:0->1", "C:0->1");
  OccurrenceList found = search(table, rule);
  const SplicePlan plan(table, rule, found);
  const NodeIndex added = plan.entry_node(1, 0);
  EXPECT_EQ(plan.copied_from(added), no_index);
  EXPECT_EQ(plan.arrange(all_nodes(table), {false, true, false}), (std::vector<NodeIndex>{0, added, 2}));
}

TEST(SplicePlan, NamesWhatItAdds) {
  for (const Case& test : name_cases) EXPECT_EQ(spliced(test), test.expected) << test.what;
}

}  // namespace
}  // namespace onnxgraft::core
