// New names differ from those that the graph has and from those that were given out before.
#include "core/fresh_names.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace onnxgraft::core {
namespace {

TEST(FreshNames, DifferFromAllNamesThatAreOrCome) {
  Names names;
  for (const char* used : {"a", "a_1", "a_3", "b"}) names.intern(used);
  FreshNames fresh(names);
  std::vector<std::string> made;
  for (const char* base : {"a", "c", "a", "c", "a", "b_1", "b", "", "a_2"})
    made.emplace_back(names.text(fresh.make(base)));
  EXPECT_EQ(made, (std::vector<std::string>{"a_2", "c", "a_4", "c_1", "a_5", "b_1", "b_2", "_1", "a_2_1"}));
}

}  // namespace
}  // namespace onnxgraft::core
