// Writers and readers of each tensor, and names among many others.
#include "core/graph_table.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

using Nodes = std::vector<NodeIndex>;

Nodes readers(const GraphTable& table, const char* name) {
  const auto id = table.names.find(name);
  if (!id) return {};
  const auto found = table.readers(*id);
  return {found.begin(), found.end()};
}

TEST(GraphTable, KnowsWritersAndReaders) {
  GraphTable table = make_graph("init w,v; A x,x,w -> a,b; B a,,b -> a; If c -> d reads a,x; output d,a");
  const auto id = [&](const char* name) { return table.names.intern(name); };
  EXPECT_EQ(readers(table, "x"), Nodes{0});
  EXPECT_EQ(readers(table, "a"), Nodes{1});
  EXPECT_EQ(readers(table, "b"), Nodes{1});
  EXPECT_EQ(readers(table, "d"), Nodes{});
  EXPECT_EQ(table.producer(id("a")), 0U);
  EXPECT_EQ(table.producer(id("d")), 2U);
  EXPECT_EQ(table.producer(id("x")), no_index);
  EXPECT_TRUE(table.is_initializer(id("v")) && table.is_graph_output(id("a")) && table.is_read_by_body(id("x")));
  EXPECT_FALSE(table.is_initializer(id("a")) || table.is_graph_output(id("w")) || table.is_read_by_body(id("c")));
  // A name that was added after `seal` is after the end of all arrays.
  const NameId late = table.names.intern("late");
  EXPECT_EQ(table.producer(late), no_index);
  EXPECT_TRUE(table.readers(late).empty());
  EXPECT_FALSE(table.is_initializer(late));
  EXPECT_TRUE(table.readers(no_name).empty());
}

TEST(Names, AreFoundAmongMany) {
  Names names;
  const auto text = [](int number) {
    return std::string(static_cast<std::size_t>(number % 50), 'x') + std::to_string(number);
  };
  for (int number = 0; number < 20'000; ++number) EXPECT_EQ(names.intern(text(number)), number + 1);
  names.reserve(100'000);
  for (int number = 0; number < 20'000; ++number) {
    EXPECT_EQ(names.find(text(number)), number + 1);
    EXPECT_EQ(names.text(static_cast<NameId>(number + 1)), text(number));
  }
  EXPECT_EQ(names.find("lost"), std::nullopt);
  EXPECT_EQ(names.find(""), std::nullopt);
  EXPECT_EQ(names.intern(std::string(100'000, 'y')), 20'001U);
  EXPECT_EQ(names.intern(""), no_name);
  EXPECT_EQ(names.size(), 20'002U);
}

}  // namespace
}  // namespace onnxgraft::core
