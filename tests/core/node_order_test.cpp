// Repair of topological order, putting nodes back into a list that callbacks changed, and cycles that no order can
// repair.
#include "core/node_order.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

using List = std::vector<NodeIndex>;

TEST(PutBack, BeforeTheNextOldNodeStillThere) {
  struct Case {
    List now;
    List goes;
    List comes_back;
    List expected;
  };
  // Before, the list was 0 to 5; nodes from 6 on are new.
  const Case table[] = {
      {{0, 6, 2, 3, 4, 5}, {6}, {1}, {0, 1, 2, 3, 4, 5}},  // not changed by callbacks
      {{6, 3, 4, 5}, {6}, {0, 1, 2}, {0, 1, 2, 3, 4, 5}},  // several in a row, at the start
      {{0, 1, 2, 6}, {6}, {3, 4, 5}, {0, 1, 2, 3, 4, 5}},  // at the end
      {{6}, {6}, {0, 1, 2, 3, 4, 5}, {0, 1, 2, 3, 4, 5}},  // all
      {{5, 4, 6, 2, 0}, {6}, {1, 3}, {5, 3, 4, 1, 2, 0}},  // callbacks reversed the list
      {{0, 7, 6, 4, 8}, {6}, {1, 2}, {0, 7, 1, 2, 4, 8}},  // callbacks removed 3 and 5, added 7 and 8
      {{0, 6, 1, 9}, {6}, {4}, {0, 1, 9, 4}},              // no old node is left after it
      {{0, 1, 2, 3, 4, 5}, {6}, {}, {0, 1, 2, 3, 4, 5}},   // gone already
  };
  const List before{0, 1, 2, 3, 4, 5};
  for (const Case& test : table) {
    std::vector<bool> goes(10);
    std::vector<bool> comes_back(10);
    for (const NodeIndex node : test.goes) goes[node] = true;
    for (const NodeIndex node : test.comes_back) comes_back[node] = true;
    EXPECT_EQ(put_back(test.now, before, goes, comes_back), test.expected);
  }
}

TEST(PutInOrder, MovesProducersUpAndNothingElse) {
  struct Case {
    const char* what;
    const char* graph;  // all nodes, the new ones last
    std::size_t old_count;
    List placed;
    List expected;
  };
  const Case table[] = {
      {"all in order", "A x -> a; B a -> b; C b -> c; N a -> n", 3, {0, 3, 1, 2}, {0, 3, 1, 2}},
      {"a producer, with its own",
       "A x -> a; B y -> b; C b -> c; D z -> d; N c -> n",
       4,
       {4, 0, 1, 2, 3},
       {1, 2, 4, 0, 3}},
      {"several, in list order", "A x -> a; B y -> b; C z -> c; N c,b,c -> n", 3, {3, 0, 1, 2}, {1, 2, 3, 0}},
      {"a new producer", "A x -> a; B n -> b; N y -> n", 2, {0, 1, 2}, {0, 2, 1}},
      {"what old nodes had out of order stays so", "B a -> b; A x -> a; N b -> n", 2, {0, 1, 2}, {0, 1, 2}},
      {"but not where they were in order", "A x -> a; B a -> b", 2, {1, 0}, {0, 1}},
      {"what bodies read counts", "A x -> a; N y -> n reads a", 1, {1, 0}, {0, 1}},
      {"the first writer counts", "A x -> a; B y -> a; N a -> n", 2, {2, 0, 1}, {0, 2, 1}},
      {"a node that reads what it writes", "A x -> a; N n,a -> n", 1, {1, 0}, {0, 1}},
  };
  for (const Case& test : table) {
    const GraphTable graph = make_graph(test.graph);
    List before(test.old_count);
    std::iota(before.begin(), before.end(), NodeIndex{0});
    EXPECT_EQ(put_in_order(graph, before, test.placed), test.expected) << test.what;
  }
}

TEST(PutInOrder, AGraphWithACycleKeepsAllItsNodes) {
  GraphTable table = make_graph("A c -> a; B a -> b; C b -> c");
  const NameId inputs[] = {table.names.intern("c")};
  const NameId outputs[] = {table.names.intern("d")};
  const NodeIndex added = table.add_node(table.ops.intern("D"), inputs, outputs);
  EXPECT_EQ(put_in_order(table, List{0, 1, 2}, List{added, 0, 1, 2}), (List{0, 1, 2, added}));
}

}  // namespace
}  // namespace onnxgraft::core
