// What a splice makes of a list of nodes: places, names and links of new nodes, and any subset of a plan.
#include "core/splice_plan.h"

#include <gtest/gtest.h>

#include <map>

#include "core/node_order.h"
#include "random_case.h"

namespace onnxgraft::core {
namespace {

std::vector<NodeIndex> all_nodes(const GraphTable& table) {
  std::vector<NodeIndex> nodes(table.original_count());
  for (NodeIndex node = 0; node < nodes.size(); ++node) nodes[node] = node;
  return nodes;
}

struct Case {
  const char* what;
  const char* graph;
  const char* pattern;
  const char* replacement;
  Texts expected;  // the whole list behind the splice
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.what; }

class SpliceCase : public testing::TestWithParam<Case> {};

TEST_P(SpliceCase, GivesThisList) {
  const Case& test = GetParam();
  GraphTable table = make_graph(test.graph);
  const Rule rule = make_rule(test.pattern, test.replacement);
  OccurrenceList found = search(table, rule);
  const SplicePlan plan(table, rule, found);
  Texts lines;
  for (const NodeIndex node : plan.arrange(all_nodes(table), std::vector<bool>(found.size(), true))) {
    lines.push_back(node_line(table, node));
  }
  EXPECT_EQ(lines, test.expected);
}

const char* const conv = "Conv:0,1i->4";
const char* const quantized = "Quant:0->100 #0:100,101i->103 Dequant:103,104i->4";
const char* const agreeing = "Quant:0->1 Conv:1,2i->4 Quant:0->5";
const char* const agreeing_kept = "#2 #1:5,2i->4";

// clang-format off: a table
const Case place_cases[] = {
    {"new in front of the next '#', the last behind it", "init w; n: Neg p -> x; c: Conv x,w -> y; r: Relu y -> z",
     conv, quantized,
     {"n: Neg p -> x", "c_Quant: Quant x -> x_Quant", "c: Conv x_Quant,w_new -> y_Conv", "c_Dequant: Dequant y_Conv,y_input_1 -> y", "r: Relu y -> z"}},
    {"no '#' at all: at the last pattern node", "a: A x -> u; n: Neg p -> q; b: B u -> y; m: Neg y -> z",
     "A:0->1 B:1->2", "C:0->2", {"n: Neg p -> q", "b_C: C x -> y", "m: Neg y -> z"}},
    {"several new ones keep their order", "b: B x -> y", "B:0->1", "C:0->7 D:7->8 #0:8->9 E:9->6 F:6->1",
     {"b_C: C x -> x_C", "b_D: D x_C -> x_C_D", "b: B x_C_D -> y_B", "b_E: E y_B -> y_B_E", "b_F: F y_B_E -> y"}},
    {"copies stand where the matched nodes stood, but behind what they read", "a: A x -> u; b: B u -> y",
     "A:0->1 B:1->2", "#1:0->9 #0:9->1 C:1->2", {"b: B x -> y_B", "a: A y_B -> u", "a_C: C u -> y"}},
    {"new ones stand between a kept node and its copy", "a: A x -> u", "A:0->1", "#0:0->8 C:8->9 #0 D:1->7",
     {"a_1: A x -> u_A", "a_C: C u_A -> u_A_C", "a: A x -> u", "a_D: D u -> u_D"}},
    {"two occurrences at one kept node", "l: L x -> a; p: C a,u -> c; q: Q c -> d; r: C a,v -> e; s: Q e -> f",
     "L:1->2 C:2,3->4 Q:4->9", "#0 #2:2->5 #2:3->6 #1:5,6->9",
     {"l: L x -> a", "q: Q a -> d_Q", "q_1: Q u -> d_Q_1", "p: C d_Q,d_Q_1 -> d", "s: Q a -> f_Q", "s_1: Q v -> f_Q_1", "r: C f_Q,f_Q_1 -> f"}},
    {"nothing in its place", "a: A x -> u; b: B x -> v; c: C u -> w", "B:0->1", "", {"a: A x -> u", "c: C u -> w"}},
};

const Case order_cases[] = {
    {"a producer is moved up in front of its reader",
     "init w; p: Quant x -> a; c: Conv a,w -> y; n: Neg y -> z; q: Quant x -> b", agreeing, agreeing_kept,
     {"q: Quant x -> b", "c: Conv b,w -> y", "n: Neg y -> z"}},
    {"... with its own producers, and nothing else",
     "a: A x -> u; b: B u -> y; m: Neg r -> s; n: Neg p -> q; k: Neg q -> t; g: G t -> v", "A:0->1 B:1->2 G:3->4",
     "#0 #1:1,4->2 #2",
     {"a: A x -> u", "n: Neg p -> q", "k: Neg q -> t", "g: G t -> v", "b: B u,v -> y", "m: Neg r -> s"}},
    {"... several in list order", "a: A x -> u; g: G p -> q; h: H r -> s", "A:0->1 G:2->3 H:4->5", "#0:5,3->1 #1 #2",
     {"g: G p -> q", "h: H r -> s", "a: A s,q -> u"}},
    {"a copy takes the place and the name of what it replaces",
     "init w; p: Quant x -> a; c: Conv a,w -> y; q: Quant y -> z", "Quant:0->1 Conv:1,2i->3 Quant:3->4",
     "#2:0->1 #1 #2", {"p: Quant x -> a", "c: Conv a,w -> y", "q: Quant y -> z"}},
    {"old disorder between nodes that stay remains", "n: Neg v -> w; m: Neg u -> v; a: A x -> u", "A:0->1", "B:0->1",
     {"n: Neg v -> w", "a_B: B x -> u", "m: Neg u -> v"}},
    {"a kept node's old disorder remains", "n: Neg u -> v; a: A x -> u; b: B y -> z", "A:0->1 B:2->3", "#0 C:1->3",
     {"n: Neg u -> v", "a: A x -> u", "a_C: C u -> z"}},
    {"names read by bodies are inputs of a copy", "f: If c -> y reads u; a: A x -> u", "If:0->1", "#0:0->1",
     {"a: A x -> u", "f: If c -> y reads u"}},
};

const Case name_cases[] = {
    {"a new node is named after what it stands beside", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2", "C:0->9 #0:9->1 #1",
     {"a_C: C x -> x_C", "a: A x_C -> u", "b: B u -> y"}},
    {"a copy of a kept node leaves a name to the node's own copy", "a: A x -> u; b: B u -> y", "A:0->1 B:1->2",
     "#1 #0:0->9 #1:9->1", {"a: A x -> u_A", "b_1: B u_A -> u", "b: B u -> y"}},
    {"names in use are left out",
     "init w,y_input_1; c_Quant: Neg p -> x_Quant; c: Conv x,w -> y; w_new: Neg y -> y_Conv", conv, quantized,
     {"c_Quant: Neg p -> x_Quant", "c_Quant_1: Quant x -> x_Quant_1", "c: Conv x_Quant_1,w_new_1 -> y_Conv_1", "c_Dequant: Dequant y_Conv_1,y_input_1_1 -> y", "w_new: Neg y -> y_Conv"}},
    {"occurrences do not share new names", "a: A x -> u; a: A x -> v", "A:0->1", "C:0->9 D:9->1",
     {"a_C: C x -> x_C", "a_D: D x_C -> u", "a_C_1: C x -> x_C_1", "a_D_1: D x_C_1 -> v"}},
    {"the first copy has the name, a second a new one", "a: A x -> u", "A:0->1", "#0:0->8 #0:8->1",
     {"a: A x -> u_A", "a_1: A u_A -> u"}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Places, SpliceCase, testing::ValuesIn(place_cases));
INSTANTIATE_TEST_SUITE_P(Order, SpliceCase, testing::ValuesIn(order_cases));
INSTANTIATE_TEST_SUITE_P(Names, SpliceCase, testing::ValuesIn(name_cases));

TEST(SplicePlan, NodesWithoutNamesGetReadableOnes) {
  GraphTable table = make_graph("A x -> u");
  const Rule rule = make_rule("A:0->1", "N:->9 #0:0,9->1");
  OccurrenceList found = search(table, rule);
  const SplicePlan plan(table, rule, found);
  const auto list = plan.arrange(all_nodes(table), {true});
  ASSERT_EQ(list.size(), 2U);
  EXPECT_NE(table.node_names[list[0]], no_name);
  EXPECT_EQ(node_line(table, list[1]), "A x,N -> u");  // a copy keeps even an empty name
  EXPECT_EQ(plan.copied_from(list[1]), 0U);
  EXPECT_EQ(plan.copied_from(list[0]), no_index);
}

/// A list with new nodes told by (occurrence, entry), so that lists of different plans compare.
std::vector<std::pair<std::size_t, std::size_t>> portable(const std::vector<NodeIndex>& list, const SplicePlan& plan,
                                                          const Rule& rule, const std::vector<std::size_t>& numbers) {
  std::map<NodeIndex, std::pair<std::size_t, std::size_t>> places;
  for (std::size_t at = 0; at < numbers.size(); ++at) {
    for (std::size_t entry = 0; entry < rule.entries.size(); ++entry) {
      if (rule.entries[entry].kind != EntryKind::keep) places[plan.entry_node(at, entry)] = {numbers[at], entry + 1};
    }
  }
  std::vector<std::pair<std::size_t, std::size_t>> result;
  for (const NodeIndex node : list) {
    const auto place = places.find(node);
    result.push_back(place == places.end() ? std::pair<std::size_t, std::size_t>{node, 0} : place->second);
  }
  return result;
}

/// Every edge that has to be in order is: all of new nodes, and those of old nodes that were before.
void expect_order(const GraphTable& table, const std::vector<NodeIndex>& list) {
  std::map<NameId, std::pair<NodeIndex, std::size_t>> writers;
  for (std::size_t at = 0; at < list.size(); ++at) {
    for (const NameId name : table.outputs(list[at])) writers.try_emplace(name, list[at], at);
  }
  for (std::size_t at = 0; at < list.size(); ++at) {
    for (const auto read : {table.inputs(list[at]), table.implicit_inputs(list[at])}) {
      for (const NameId name : read) {
        const auto writer = writers.find(name);
        if (name == no_name || writer == writers.end()) continue;
        const NodeIndex from = writer->second.first;
        const bool new_edge = from >= table.original_count() || list[at] >= table.original_count();
        if (!new_edge && from > list[at]) continue;
        EXPECT_LT(writer->second.second, at) << table.names.text(name);
      }
    }
  }
}

TEST(SplicePlan, ASubsetIsWhatAPlanOfOnlyThoseGives) {
  std::size_t compared = 0;
  for (std::uint32_t seed = 0; seed < 3000; ++seed) {
    RandomCase random(seed);
    const std::string graph = random.graph();
    GraphTable table = make_graph(graph);
    const auto rule = random.rule(table);
    if (!rule || !rule->new_dependencies.empty()) continue;  // two together might close a cycle
    OccurrenceList found = search(table, *rule);
    if (found.empty()) continue;
    SCOPED_TRACE(seed);
    const SplicePlan plan(table, *rule, found);
    const std::vector<NodeIndex> before = all_nodes(table);
    expect_order(table, plan.arrange(before, std::vector<bool>(found.size(), true)));
    ASSERT_EQ(plan.arrange(before, std::vector<bool>(found.size(), false)), before);

    std::vector<bool> chosen(found.size());
    std::vector<std::size_t> every;
    std::vector<std::size_t> numbers;
    OccurrenceList fewer(*rule);
    const Assignment none;
    GraphTable other = make_graph(graph);
    const OccurrenceList again = search(other, *rule);
    for (std::size_t at = 0; at < found.size(); ++at) {
      every.push_back(at);
      chosen[at] = random.chance(0.5);
      if (!chosen[at]) continue;
      numbers.push_back(at);
      fewer.add(again.nodes(at), again.links(at));
    }
    const SplicePlan only_those(other, *rule, fewer);
    const auto expected = only_those.arrange(before, std::vector<bool>(fewer.size(), true));
    ASSERT_EQ(portable(plan.arrange(before, chosen), plan, *rule, every),
              portable(expected, only_those, *rule, numbers));
    ++compared;
  }
  EXPECT_GT(compared, 500U);
}

}  // namespace
}  // namespace onnxgraft::core
