// Putting nodes back into a list that others have changed meanwhile, and cycles that no order can mend.
#include "core/node_order.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

using List = std::vector<NodeIndex>;

TEST(PutBack, InFrontOfTheNextOldNodeStillThere) {
  struct Case {
    List now;
    List goes;
    List comes_back;
    List expected;
  };
  // Before, the list was 0 to 5; nodes from 6 on are new.
  const Case table[] = {
      {{0, 6, 2, 3, 4, 5}, {6}, {1}, {0, 1, 2, 3, 4, 5}},  // untouched by others
      {{6, 3, 4, 5}, {6}, {0, 1, 2}, {0, 1, 2, 3, 4, 5}},  // several in a row, at the start
      {{0, 1, 2, 6}, {6}, {3, 4, 5}, {0, 1, 2, 3, 4, 5}},  // at the end
      {{6}, {6}, {0, 1, 2, 3, 4, 5}, {0, 1, 2, 3, 4, 5}},  // all
      {{5, 4, 6, 2, 0}, {6}, {1, 3}, {5, 3, 4, 1, 2, 0}},  // others turned the list round
      {{0, 7, 6, 4, 8}, {6}, {1, 2}, {0, 7, 1, 2, 4, 8}},  // others took 3 and 5, added 7 and 8
      {{0, 6, 1, 9}, {6}, {4}, {0, 1, 9, 4}},              // no old node left behind it
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

TEST(PutInOrder, AGraphWithACycleKeepsAllItsNodes) {
  GraphTable table = make_graph("A c -> a; B a -> b; C b -> c");
  const NameId inputs[] = {table.names.intern("c")};
  const NameId outputs[] = {table.names.intern("d")};
  const NodeIndex added = table.add_node(table.ops.intern("D"), inputs, outputs);
  EXPECT_EQ(put_in_order(table, List{0, 1, 2}, List{added, 0, 1, 2}), (List{0, 1, 2, added}));
}

}  // namespace
}  // namespace onnxgraft::core
