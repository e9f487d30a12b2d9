// Interning of names, and fresh ones.
#include "core/names.h"

#include <gtest/gtest.h>

#include <string>

#include "core/fresh_names.h"

namespace onnxgraft::core {
namespace {

TEST(Names, GiveDenseIdsThatStayAcrossGrowth) {
  Names names;
  EXPECT_EQ(names.intern(""), no_name);
  EXPECT_EQ(names.find(""), no_name);
  const std::string long_name(200'000, 'x');  // larger than a block
  const std::string with_zero("a\0b", 3);
  const NameId first = names.intern("first");
  const std::string_view view = names.text(first);
  for (NameId number = 0; number < 5000; ++number) {
    ASSERT_EQ(names.intern("t" + std::to_string(number)), first + 1 + number);
  }
  const NameId large = names.intern(long_name);
  const NameId zero = names.intern(with_zero);
  EXPECT_EQ(names.text(large), long_name);
  EXPECT_EQ(names.text(zero), with_zero);
  EXPECT_EQ(names.find("a"), std::nullopt);
  EXPECT_EQ(names.find("t4999"), first + 5000);
  EXPECT_EQ(names.intern("first"), first);
  EXPECT_EQ(view.data(), names.text(first).data());
  EXPECT_EQ(names.size(), 5004U);
}

TEST(FreshNames, DifferFromAllNamesThatAreOrCome) {
  Names names;
  for (const char* used : {"a", "a_1", "a_3", "b", "gone"}) names.intern(used);
  std::vector<bool> vacant(names.size(), false);
  vacant.back() = true;
  FreshNames fresh(names, vacant);
  std::vector<std::string> made;
  for (const char* base : {"a", "c", "a", "c", "a", "b_1", "b", "", "a_2", "gone", "gone"})
    made.emplace_back(names.text(fresh.make(base)));
  EXPECT_EQ(made,
            (std::vector<std::string>{"a_2", "c", "a_4", "c_1", "a_5", "b_1", "b_2", "_1", "a_2_1", "gone", "gone_1"}));
}

}  // namespace
}  // namespace onnxgraft::core
