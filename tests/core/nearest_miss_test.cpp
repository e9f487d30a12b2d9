// Why nothing matched: the reason, and whether its sentence names what somebody has to look at.
#include "core/nearest_miss.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

struct Case {
  const char* graph;
  const char* pattern;
  const char* replacement;
  std::uint32_t matched;
  const char* reason;
  Texts named;  // parts of the sentence
};

const char* const relu_conv = "Relu:0->1 Conv:1,2i->3";
const char* const fused = "#1:0,2i->3";

// clang-format off: a table
const Case cases[] = {
    {"Neg x -> a", "Neg:0->1 Relu:1->2", "", 0, "missing_operator", {"no Relu node"}},
    {"init w; Relu x -> a; Neg a -> b; Conv y,w -> c", relu_conv, fused, 1, "wrong_operator",
     {"1 of 2", "Relu node 0 (writes 'a')", "pattern node 1 (Conv)", "Neg node 1 (writes 'b')"}},
    {"MaxPool x -> a,i", "MaxPool:0->1", "", 0, "output_count", {"MaxPool node 0", "exactly one output"}},
    {"Neg x -> a; Relu x -> a", "Relu:0->1", "", 0, "second_producer", {"'a'"}},
    {"Relu x -> a; Conv a -> b", relu_conv, fused, 1, "input_count", {"Conv node 1", "number of inputs"}},
    {"Conv x,,w -> b", "Conv:0,1,2->3", "", 0, "input_omitted", {"input 1 of Conv node 0"}},
    {"Relu x -> a; Conv a,v -> b", relu_conv, fused, 1, "not_initializer", {"input 1", "Conv node 1", "'v'"}},
    {"Resize x,r -> b", "Resize:0,~i->3", "", 0, "rest_not_initializer", {"input 1", "Resize node 0", "'r'"}},
    {"Mul x,y -> b", "Mul:1,1->3", "", 0, "different_tensors", {"Mul node 0", "'y'"}},
    {"init w; Relu x -> a; Conv w,a -> b", "Relu:0->1 Conv:1,2->3", "#1:0,2->3", 1, "other_position",
     {"Conv node 1", "'a'", "input 0"}},
    {"output a; Relu x -> a", "Relu:0->1", "", 0, "graph_output", {"'a'", "output of the graph"}},
    {"Relu x -> a; If c -> d reads a", "Relu:0->1", "", 0, "read_by_body", {"'a'", "nested graph"}},
    {"init w; Relu x -> a; Neg a -> n; Conv a,w -> b", relu_conv, fused, 0, "read_elsewhere",
     {"'a'", "Neg node 1 (writes 'n')"}},
    {"Relu x -> a; Neg y -> b", "Relu:0->1 Neg:1->2", "#0 #1", 0, "too_few_readers", {"'a'"}},
    {"Relu x -> a; Mul a,a -> b", "Relu:0->1 Mul:1,2->3", "#1:0,2->3", 1, "same_tensor", {"'a'", "removed"}},
    {"Relu x -> a", "Relu:0->1 Relu:2->3", "#0 #1", 1, "node_used_twice", {"Relu node 0"}},
    {"init w; Conv x,w -> b; Relu b -> c", "Conv:1,2i->3 Relu:0->1", "#0:0,2i->3", 1, "no_producer", {"'x'"}},
    {"A x -> a; N a -> y; B y -> b", "A:1->2 B:3->4", "A:3->2 B:1->4", 2, "closes_cycle", {"cycle"}},
};
// clang-format on

TEST(NearestMiss, NamesTheReasonAndThePlace) {
  for (const Case& test : cases) {
    SCOPED_TRACE(test.graph);
    const GraphTable table = make_graph(test.graph);
    const Rule rule = make_rule(test.pattern, test.replacement);
    const auto miss = find_nearest_miss(table, rule);
    ASSERT_TRUE(miss);
    const std::string sentence = describe(table, rule, *miss);
    EXPECT_EQ(miss->matched, test.matched) << sentence;
    EXPECT_STREQ(reason_name(miss->reason), test.reason) << sentence;
    for (const std::string& part : test.named) EXPECT_NE(sentence.find(part), std::string::npos) << sentence;
    EXPECT_EQ(sentence.find('{'), std::string::npos) << sentence;
  }
}

TEST(NearestMiss, IsTheFurthestAttemptAndTheFirstAmongEquals) {
  const GraphTable table =
      make_graph("init w; Relu x -> a; Relu y -> b; Conv b,v -> c; Relu z -> d; Conv d,u -> e; output a");
  const Rule rule = make_rule(relu_conv, fused);
  const auto miss = find_nearest_miss(table, rule);
  ASSERT_TRUE(miss);
  EXPECT_EQ(miss->last, 1U);
  EXPECT_EQ(miss->candidate, 2U);
  EXPECT_EQ(table.names.text(miss->tensor), "v");
  EXPECT_FALSE(find_nearest_miss(make_graph("init w; Relu x -> a; Conv a,w -> b"), rule));
}

}  // namespace
}  // namespace onnxgraft::core
