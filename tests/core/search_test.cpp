// The search on cases made by hand, each with the reason that it stands for.
#include "core/search.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

struct Case {
  const char* what;
  const char* graph;
  const char* pattern;
  const char* replacement;
  const char* expected;  // graph nodes by pattern node, "0,1 2,3" for two occurrences
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.what; }

class SearchCase : public testing::TestWithParam<Case> {};

TEST_P(SearchCase, FindsTheseInThisOrder) {
  const Case& test = GetParam();
  const GraphTable table = make_graph(test.graph);
  std::string found;
  for (const Assignment& nodes : assignments(search(table, make_rule(test.pattern, test.replacement)))) {
    for (const NodeIndex node : nodes) found += std::to_string(node) + ",";
    found.back() = ' ';
  }
  EXPECT_EQ(found, test.expected + std::string(*test.expected == '\0' ? "" : " "));
}

const char* const relu_conv = "Relu:0->1 Conv:1,2i->3";
const char* const two_branches = "LeakyRelu:1->2 LeakyRelu:3->4 Concat:2,4->5 Quant:5->99";
const char* const branches_kept = "#0 #1 #3:2->100 #3:4->101 #2:100,101->99";
const char* const agreeing = "Quant:0->1 MaxPool:1->4 Quant:0->5";
const char* const agreeing_kept = "#2 #1:5->4";
const char* const pooled_apart = "Quant:1->2 Conv:2,6i->8 Quant:12->13";

// clang-format off: a table
const Case inputs_and_outputs[] = {
    {"a number of inputs is exact", "init w,b; Conv x,w -> a; Conv x,w,b -> c", "Conv:0,1i->4", "", "0"},
    {"trailing omitted inputs and outputs do not count", "init w; Conv x,w,, -> a,,", "Conv:0,1i->4", "", "0"},
    {"an omitted input in the middle binds nothing", "init w; Conv x,,w -> a", "Conv:0,1,2i->4", "", ""},
    {"a second output", "MaxPool x -> a,i; MaxPool x -> b; MaxPool x -> ,c", "MaxPool:0->1", "#0", "1"},
    {"positions are not exchanged", "init w; Add w,x -> a; Add x,w -> b", "Add:0,1i->2", "", "1"},
    {"a constant is no initializer", "Constant -> w; Conv x,w -> a", "Conv:0,1i->4", "", ""},
    {"a plain input may be an initializer", "init w; Relu w -> a", "Relu:0->1", "", "0"},
    {"the rest may be empty, omitted or initializers", "init w; R x -> a; R x,w,,w -> b; R x,y -> c; R x,w,y -> d",
     "R:0,~i->1", "", "0 1"},
    {"the first of two writers counts", "Relu x -> a; Relu y -> a; Conv a -> b", "Relu:0->1", "#0", "0"},
    {"no writer where the graph's input is read", "init w; Conv x,w -> a", relu_conv, "#1:0,2i->3", ""},
    {"one node plays one part", "Relu x -> a", "Relu:0->1 Relu:2->3", "#0 #1", ""},
    {"one tensor may stand for two", "Mul x,x -> a", "Mul:1,2->3", "#0", "0"},
    {"one id is one tensor", "Mul x,y -> a; Mul x,x -> b", "Mul:1,1->3", "#0", "1"},
};

const Case outside_uses[] = {
    {"a vanishing tensor has no other reader", "init w; Relu x -> a; Conv a,w -> b; Neg a -> c", relu_conv,
     "#1:0,2i->3", ""},
    {"... is no output of the graph", "init w; output a; Relu x -> a; Conv a,w -> b", relu_conv, "#1:0,2i->3", ""},
    {"... is read by no body", "init w; Relu x -> a; Conv a,w -> b; If x -> c reads a", relu_conv, "#1:0,2i->3", ""},
    {"... is read twice inside", "Relu x -> a; Mul a,a -> b", "Relu:0->1 Mul:1,1->2", "#1:0,0->2", "0,1"},
    {"a final output that nobody reads may vanish", "Relu x -> a; Relu a -> b", "Relu:0->1", "", "1"},
    {"an inner tensor written anew has no other reader", "init w; Relu x -> a; Conv a,w -> b; Neg a -> c", relu_conv,
     "Clip:0->1 #1:1,2i->3", ""},
    {"a final tensor written anew may have any", "output a; Relu x -> a; Neg a -> b; If x -> c reads a", "Relu:0->1",
     "Clip:0->1", "0"},
    {"a kept node's output may have any", "init w; output a; Relu x -> a; Conv a,w -> b; Neg a -> c", relu_conv,
     "#0 Gemm:1,2i->3", "0,1"},
    {"a removed node's tensor stands for one id", "Relu x -> a; Mul a,a -> b", "Relu:0->1 Mul:1,2->3", "#1:0,2->3", ""},
    {"a kept node's tensor may stand for two", "Relu x -> a; Mul a,a -> b", "Relu:0->1 Mul:1,2->3", "#0 #1:2,1->3",
     "0,1"},
};

const Case choices[] = {
    {"readers of one tensor, first come", "MaxPool a -> p; Quant x -> a; Quant x -> b; Quant x -> c", agreeing,
     agreeing_kept, "1,0,2"},
    {"one kept node serves several", "Quant x -> a; MaxPool a -> p; Quant x -> b; Quant x -> c; MaxPool c -> q",
     agreeing, agreeing_kept, "0,1,2 3,4,2"},
    {"what one keeps, no other removes", "Quant x -> a; MaxPool a -> p; Quant x -> b; MaxPool b -> q", agreeing,
     agreeing_kept, "0,1,2"},
    {"a chain is taken from its start", "Relu x -> a; Relu a -> b; Relu b -> c; Relu c -> d; Relu d -> e",
     "Relu:0->1 Relu:1->2", "Relu:0->2", "0,1 2,3"},
    {"list order decides, not the tensors' order", "Relu b -> c; Relu a -> b; Relu x -> a", "Relu:0->1 Relu:1->2",
     "Relu:0->2", "1,0"},
    {"a node reached over the one that joins both",
     "LeakyRelu x -> a; LeakyRelu y -> b; LeakyRelu z -> c; Concat a,b -> d; Quant d -> e; Concat a,c -> f; Quant f -> g",
     two_branches, branches_kept, "0,1,3,4 0,2,5,6"},
    {"the joined node may be the other's elder",
     "LeakyRelu y -> b; LeakyRelu z -> c; LeakyRelu x -> a; Concat a,c -> d; Quant d -> e; Concat a,b -> f; Quant f -> g",
     two_branches, branches_kept, "2,0,5,6 2,1,3,4"},
    {"one node cannot be both branches", "LeakyRelu x -> a; Concat a,a -> b; Quant b -> c", two_branches, branches_kept,
     ""},
    {"a part of its own takes the first other node",
     "init w; Quant x -> a; Conv a,w -> b; Quant y -> c; Conv c,w -> d; Quant z -> e", pooled_apart,
     "#0 Gemm:2,6i->8 #2", "0,1,2 2,3,0"},
    {"a part of its own needs another node", "init w; Quant x -> a; Conv a,w -> b", pooled_apart, "#0 Gemm:2,6i->8 #2",
     ""},
    {"a removed node is no other's separate part", "Quant x -> a; Relu y -> b; Relu z -> c", "Relu:1->2 Quant:3->4",
     "Clip:1->2 Clip:3->4", "1,0"},
};

const Case cycles[] = {
    {"a new need of what comes later", "A x -> a; N a -> y; B y -> b", "A:1->2 B:3->4", "A:3->2 B:1->4", ""},
    {"the same need where it closes nothing", "A x -> a; N a -> z; B y -> b", "A:1->2 B:3->4", "A:3->2 B:1->4", "0,2"},
    {"each assignment is judged by itself", "A x -> a; A y -> b; N b -> p; B p -> c; B z -> d", "A:1->2 B:3->4",
     "#1 A:3->2", "0,3 1,4"},
    {"through a body outside", "A x -> a; If c -> y reads a; B y -> b", "A:1->2 B:3->4", "A:3->2 #1", ""},
    {"through the body of a kept node", "A x -> a; N a -> n; If c -> d reads n", "If:0->1 A:2->3", "#0 #1:1->3", ""},
    {"through the body of a copied node", "A x -> a; N a -> n; If c -> d reads n", "If:0->1 A:2->3", "#0:0->1 #1:1->3",
     ""},
    {"not through a node that needs it no more", "A x -> a; C a,u -> c; N c -> y; B y -> b", "A:1->2 C:2,5->6 B:3->4",
     "A:3->2 Clip:5->6 #2", "0,1,3"},
    {"through another pattern node", "A x -> a; C a -> y; B y -> b", "A:1->2 B:3->4 C:5->6", "A:3->2 #1 #2", ""},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(InputsAndOutputs, SearchCase, testing::ValuesIn(inputs_and_outputs));
INSTANTIATE_TEST_SUITE_P(OutsideUses, SearchCase, testing::ValuesIn(outside_uses));
INSTANTIATE_TEST_SUITE_P(Choices, SearchCase, testing::ValuesIn(choices));
INSTANTIATE_TEST_SUITE_P(Cycles, SearchCase, testing::ValuesIn(cycles));

TEST(SearchRounds, WhatOnlyARefusedOneKeptOutGetsItsTurn) {
  const GraphTable table = make_graph("Quant x -> a; MaxPool a -> p; Quant x -> b; Quant x -> c");
  const Rule rule = make_rule(agreeing, agreeing_kept);
  RefusedSet refused;
  for (const Assignment& expected : {Assignment{0, 1, 2}, Assignment{0, 1, 3}}) {
    Claims claims(table.original_count());
    ASSERT_EQ(assignments(search(table, rule, claims, refused)), std::vector<Assignment>(1, expected));
    refused.add(rule, expected);
  }
  Claims claims(table.original_count());
  EXPECT_TRUE(search(table, rule, claims, refused).empty());
}

TEST(SearchRounds, AnotherSeparatePartIsNoNewAssignment) {
  const GraphTable table = make_graph("init w; Quant x -> a; Conv a,w -> b; Quant y -> c; Quant z -> d; Conv d,w -> e");
  const Rule rule = make_rule(pooled_apart, "#0 Gemm:2,6i->8 #2");
  RefusedSet refused;
  refused.add(rule, Assignment{0, 1, 2});
  Claims claims(table.original_count());
  EXPECT_EQ(assignments(search(table, rule, claims, refused)), (std::vector<Assignment>{{3, 4, 0}}));
}

TEST(SearchRounds, BindsTheTensorOfEveryId) {
  const GraphTable table = make_graph("init w; Relu x -> a; Conv a,w -> b");
  const Rule rule = make_rule(relu_conv, "#0 #1:1,9i->3");
  const OccurrenceList found = search(table, rule);
  ASSERT_EQ(found.size(), 1U);
  std::string bound;
  for (std::size_t link = 0; link < rule.links.size(); ++link) {
    bound += rule.links[link].id + "=" + std::string(table.names.text(found.links(0)[link])) + " ";
  }
  EXPECT_EQ(bound, "0=x 1=a 2=w 3=b 9= ");
}

}  // namespace
}  // namespace onnxgraft::core
