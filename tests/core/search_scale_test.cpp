// Shapes of graphs on which a search that tries products of candidates would not end within the time limit of ctest. No
// time is measured: a search in proportion to the graph takes a fraction of a second for each.
#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

/// The lines `count` times; "@" becomes the number of the copy.
std::string repeated(std::size_t count, const std::string& lines) {
  std::string text;
  for (std::size_t number = 0; number < count; ++number) {
    for (const char c : lines + ";") text += c == '@' ? std::to_string(number) : std::string(1, c);
  }
  return text;
}

std::size_t count(const GraphTable& table, const char* pattern, const char* replacement) {
  const std::vector<Assignment> found = assignments(search(table, make_rule(pattern, replacement)));
  EXPECT_TRUE(std::ranges::is_sorted(found));
  return found.size();
}

constexpr std::size_t many = 50'000;
constexpr std::size_t some = 20'000;
const char* const two_branches = "LeakyRelu:1->2 LeakyRelu:3->4 Concat:2,4->5 Quant:5->99";
const char* const branches_kept = "#0 #1 #3:2->100 #3:4->101 #2:100,101->99";

TEST(SearchScale, OneTensorWithManyReaders) {
  const GraphTable quants = make_graph("init w;" + repeated(many, "Quant x -> q@; Conv q@,w -> c@"));
  // The second quantize node stays and serves all others.
  EXPECT_EQ(count(quants, "Quant:0->1 Conv:1,2i->4 Quant:0->5", "#2 #1:5,2i->4"), many - 1);
}

TEST(SearchScale, SiblingsThatAreUsedUpOnOneSide) {
  const GraphTable table = make_graph(repeated(2 * many, "A x -> a@; B x -> b@"));
  EXPECT_EQ(count(table, "A:0->1 B:0->2", "#0 Clip:0->2"), 2 * many);
}

TEST(SearchScale, ManyReadersButFewOverTheNodeThatJoins) {
  const GraphTable table = make_graph(repeated(some, "A x -> a@; B x -> b@; B y -> d@; C a@,b@ -> c@; C a@,d@ -> e@"));
  EXPECT_EQ(count(table, "A:0->1 B:0->2 C:1,2->3", "#0 #1 Clip:1,2->3"), some);
}

TEST(SearchScale, OneActivationThatFeedsManyConcats) {
  for (const std::string concat : {"Concat a,l@ -> c@", "Concat l@,a -> c@"}) {
    const std::string others = repeated(some, "LeakyRelu x@ -> l@; " + concat + "; Quant c@ -> q@");
    EXPECT_EQ(count(make_graph("LeakyRelu x -> a;" + others), two_branches, branches_kept), some) << concat;
    EXPECT_EQ(count(make_graph(others + "LeakyRelu x -> a"), two_branches, branches_kept), some) << concat;
  }
}

TEST(SearchScale, PoolsThatShareTheirInput) {
  const GraphTable table = make_graph(
      repeated(some / 2, "MaxPool x -> p@; MaxPool x -> q@; MaxPool x -> r@; Concat x,p@,q@,r@ -> c@; Quant c@ -> z@"));
  EXPECT_EQ(count(table, "MaxPool:1->2 MaxPool:1->3 MaxPool:1->4 Concat:1,2,3,4->5 Quant:5->99",
                  "#0 #1 #2 #4:1->100 #4:2->101 #4:3->102 #4:4->103 #3:100,101,102,103->99"),
            some / 2);
}

TEST(SearchScale, ASeparatePartNextToMany) {
  const char* const pattern =
      "Quant:1->2 Quant:3->4 Concat:2,4->5 Conv:5,6i,7i->8 Dequant:8,9i->10 LeakyRelu:10->11 Quant:12->13";
  const char* const replacement =
      "#0 #3:2,6i,7i->100 #4:100,9i->102 #1 #3:4,6i,7i->101 #4:101,9i->103 Add:102,103->10 #5 #6";
  const GraphTable table =
      make_graph("init w,b,s;" + repeated(some / 2,
                                          "Quant x@ -> q@; Quant y@ -> r@; Concat q@,r@ -> c@; Conv c@,w,b -> v@; "
                                          "Dequant v@,s -> d@; LeakyRelu d@ -> l@"));
  EXPECT_EQ(count(table, pattern, replacement), some / 2);
}

TEST(SearchScale, ManyRefusedNextToASeparatePart) {
  const GraphTable table = make_graph(repeated(some, "Relu x@ -> a@; Neg a@ -> b@; Quant y@ -> q@"));
  const Rule rule = make_rule("Relu:0->1 Neg:1->2 Quant:3->4", "Clip:0->2 #2");
  RefusedSet refused;
  for (const Assignment& nodes : assignments(search(table, rule))) refused.add(rule, nodes);
  Claims claims(table.original_count());
  EXPECT_TRUE(search(table, rule, claims, refused).empty());
}

/// Each round finds about as many occurrences as there are nodes, and all are refused. Later rounds must not visit them
/// again.
TEST(SearchScale, PairsRefusedRoundAfterRound) {
  constexpr NodeIndex pairs_of = 600;
  const GraphTable table = make_graph(repeated(pairs_of, "Quant x -> q@; Conv q@ -> c@"));
  const Rule rule = make_rule("Quant:0->1 Conv:1->2 Quant:0->3", "#2 #1:3->2");
  Candidates candidates(table, rule);
  RefusedSet refused;
  std::size_t count = 0;
  while (true) {
    Claims claims(table.original_count());
    const OccurrenceList found = Search(table, rule, candidates, claims, refused).run();
    if (found.empty()) break;
    for (std::size_t index = 0; index < found.size(); ++index) refused.add(rule, found.nodes(index));
    count += found.size();
  }
  EXPECT_EQ(count, pairs_of * (pairs_of - 1));
}

}  // namespace
}  // namespace onnxgraft::core
