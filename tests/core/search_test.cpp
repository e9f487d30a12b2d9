// What matches and in which order, which occurrences clash, what would close a cycle, and what refusals make room for.
// The package's tests compare the whole with a slow model on random graphs. Here each rule has its own small case.
#include "core/search.h"

#include <gtest/gtest.h>

#include "core/interruption.h"
#include "graph_text.h"

namespace onnxgraft::core {
namespace {

struct Case {
  const char* what;
  const char* graph;
  const char* pattern;
  const char* replacement;
  std::vector<Assignment> expected;
};

// clang-format off: tables
const Case match_cases[] = {
    {"operators decide", "A x -> a; B x -> b; A y -> c", "A:0->1", "#0", {{0}, {2}}},
    {"an operator that the graph lacks", "A x -> a", "A:0->1 B:1->2", "#0 #1", {}},
    {"a chain, found from its first node", "B a -> b; A x -> a", "A:0->1 B:1->2", "C:0->2", {{1, 0}}},
    {"inputs keep their positions", "init w; A x,w -> a; A w,x -> b; A w,w -> c", "A:0,1i->2", "#0", {{0}, {2}}},
    {"as many inputs as the pattern has", "A x -> a; A x,y -> b; A x,y,z -> c", "A:0,1->2", "#0", {{1}}},
    {"empty names at the end do not count", "A x,y,, -> b,", "A:0,1->2", "#0", {{0}}},
    {"an omitted input is none", "init w; A ,w -> a; A x, -> b; A x,,w -> c", "A:0,1->2", "#0", {}},
    {"the rest may be anything that is not computed", "init v,w; A x -> a; A x,v,,w -> b; A x,v,x -> c; A ,v -> d", "A:0,~i->1", "#0", {{0}, {1}}},
    {"a rest after two inputs", "init v; A x -> a; A x,y -> b; A x,y,v -> c", "A:0,1,~i->2", "#0", {{1}, {2}}},
    {"an initializer is known by any string of the list", "init w; A w -> a; B w -> b; A x -> c; B x -> d", "A:1i->2 B:1->3", "#0 #1", {{0, 1}}},
    {"exactly one output", "A x -> a,b; A x -> c; A x -> ; A x -> ,d", "A:0->1", "#0", {{1}}},
    {"the first writer counts", "A x -> a; A y -> a; B a -> b", "A:0->1 B:1->2", "#0 #1", {{0, 2}}},
    {"one id twice is one tensor", "A x,x -> a; A x,y -> b", "A:0,0->1", "#0", {{0}}},
    {"two ids may be one tensor", "A x,x -> a", "A:0,1->2", "#0", {{0}}},
    {"but not one that a removed node writes", "A x -> a; B a,a -> b", "A:0->1 B:1,2->3", "C:0->3", {}},
    {"nor where the other id is bound first", "A x -> a; B a,a -> b", "B:2,1->3 A:0->1", "C:0->3", {}},
    {"it may where the node stays", "A x -> a; B a,a -> b", "A:0->1 B:1,2->3", "#0 C:1->3", {{0, 1}}},
    {"a node plays one part", "A x -> a; A y -> b", "A:0->1 A:2->3", "#0 #1", {{0, 1}, {1, 0}}},
    {"an id binds the same tensor in two strings", "A x -> a; B x -> b; B y -> c", "A:0->1 B:0->2", "#0 #1", {{0, 1}}},
    {"a tensor that vanishes has no other reader", "A x -> a; B a -> b; A y -> c; B c -> d; D c -> e", "A:0->1 B:1->2", "C:0->2", {{0, 1}}},
    {"nor is it an output", "A x -> a; B a -> b; A y -> c; B c -> d; output a", "A:0->1 B:1->2", "C:0->2", {{2, 3}}},
    {"nor do bodies read it", "A x -> a; B a -> b; A y -> c; B c -> d; If p -> q reads a", "A:0->1 B:1->2", "C:0->2", {{2, 3}}},
    {"a kept node's tensor has any readers", "A x -> a; B a -> b; D a -> e; output a", "A:0->1 B:1->2", "#0 C:1->2", {{0, 1}}},
    {"an inner tensor that is written again has none outside", "A x -> a; B a -> b; D a -> e", "A:0->1 B:1->2", "C:0->1 #1", {}},
    {"an outer one may", "A x -> a; D a -> e; output a", "A:0->1", "C:0->1", {{0}}},
    {"all readers of the pattern are there", "A x -> a; B a -> b; A y -> c; B c -> d; B c -> e", "A:0->1 B:1->2 B:1->3", "#0 #1 #2", {{2, 3, 4}, {2, 4, 3}}},
    {"a node that reads a tensor twice is one reader", "A x -> a; B a,a -> b", "A:0->1 B:1,1->2", "C:0->2", {{0, 1}}},
    {"readers at one of several inputs", "A x -> a; B y,a -> b; B a,z -> c", "A:0->1 B:2,1->3", "#0 #1", {{0, 1}}},
    {"parts without a common tensor", "A x -> a; B y -> b; B z -> c", "A:0->1 B:2->3", "#0 #1", {{0, 1}, {0, 2}}},
    {"a part that stays serves all", "A x -> a; B y -> b; A z -> c", "A:0->1 B:2->3", "C:0->1 #1", {{0, 1}, {2, 1}}},
    {"a part that goes serves one", "A x -> a; B y -> b; A z -> c", "A:0->1 B:2->3", "#0 C:2->3", {{0, 1}}},
    {"a removed node is in no other occurrence", "A x -> a; A a -> b; A b -> c", "A:0->1 A:1->2", "C:0->2", {{0, 1}}},
    {"in any part", "A x -> a; A a -> b; A b -> c; A c -> d", "A:0->1 A:1->2", "#0 C:1->2", {{0, 1}, {2, 3}}},
    {"the next choice comes after one that is taken", "A x -> a; B x -> b; A x -> c; B x -> d", "A:0->1 B:0->2", "C:0->1 D:0->2", {{0, 1}, {2, 3}}},
    {"over nodes in between", "L x -> a; L y -> b; L z -> c; N a,c -> d; N b,c -> e", "L:0->1 L:2->3 N:1,3->4", "#0 #1 C:1,3->4", {{0, 2, 3}, {1, 2, 4}}},
    {"over writers in between", "P x -> a; Q a -> b; Q a -> c; R b -> d; S c -> e; S b -> f", "R:2->5 S:3->6 Q:1->2 Q:1->3 P:0->1", "#0 #1 #2 #3 #4", {{3, 4, 1, 2, 0}}},
    {"back over a writer of two", "P x -> a; B a -> b; C a -> c; P y -> d; C d -> e", "B:1->2 C:1->3 P:0->1", "D:0->2 #1 #2", {{1, 2, 0}}},
};

const Case cycle_cases[] = {
    {"a new input that depends on the output", "A x -> a; B a -> b; G b -> g", "A:0->1 G:2->3", "#0:0,3->1 #1", {}},
    {"one that does not", "A x -> a; B a -> b; G y -> g", "A:0->1 G:2->3", "#0:0,3->1 #1", {{0, 2}}},
    {"over a body that reads the output", "A x -> a; If p -> b reads a; G b -> g", "A:0->1 G:2->3", "#0:0,3->1 #1", {}},
    {"over the body of a node that is copied", "A x -> a; If p -> b reads a; G b -> g", "A:0->1 If:2->4 G:4->5", "#0:0,5->1 #1:2->4 #2", {}},
    {"a body that would come before what it reads", "A x -> a; B a -> b; If p -> c reads b", "A:0->1 If:2->3", "#1:2->9 #0:9->1 #1", {}},
    {"a body that reads something else", "A x -> a; B y -> b; If p -> c reads b", "A:0->1 If:2->3", "#1:2->9 #0:9->1 #1", {{0, 2}}},
    {"over nodes of the occurrence as they will be", "A x -> a; D a -> d; E d -> e; G e -> g", "A:0->1 D:1->2 G:3->4", "#0:0,3->1 #1:0->2 #2", {{0, 1, 3}}},
    {"a second writer of a tensor leads nowhere", "A x -> a; B y -> b; B a -> b; G b -> g", "A:0->1 G:2->3", "#0:0,2->1 #1", {{0, 3}}},
    {"a dependence that was there before is none", "A x -> a; B a -> b", "A:0->1 B:1->2", "#0 #1:0,1->2", {{0, 1}}},
    {"each assignment is judged by itself", "A x -> a; A y -> b; G a -> g; G b -> h", "A:0->1 G:2->3", "#0:0,3->1 #1", {{0, 3}, {1, 2}}},
    {"what had no input", "K -> a; B a -> b; G b -> g", "K:->0 G:2->3", "#0:3->0 #1", {}},
    {"over one of several bodies", "A x -> a; If x -> b reads a; If x -> q reads x; If x -> r reads x; G b -> g", "A:0->1 G:2->3", "#0:0,3->1 #1", {}},
    {"the input itself is the output", "A x -> a; G a -> g", "A:0->1 G:2->3", "#0:0,2->1 #1", {}},
};
// clang-format on

TEST(Search, FindsWhatTheRulesAllow) {
  for (const Case& test : match_cases) {
    EXPECT_EQ(assignments(search(make_graph(test.graph), make_rule(test.pattern, test.replacement))), test.expected)
        << test.what;
  }
}

TEST(Search, LeavesOutWhatClosesACycle) {
  for (const Case& test : cycle_cases) {
    EXPECT_EQ(assignments(search(make_graph(test.graph), make_rule(test.pattern, test.replacement))), test.expected)
        << test.what;
  }
}

TEST(Search, RefusalsMakeRoom) {
  struct Refusals {
    const char* what;
    const char* graph;
    const char* pattern;
    const char* replacement;
    std::vector<Assignment> refused;
    std::vector<Assignment> taken;
    std::vector<Assignment> expected;
  };
  const char* const three = "Q x -> a; Q x -> b; Q x -> c";
  const char* const pair = "Q:0->1 Q:0->2";
  // clang-format off: a table
  const Refusals table[] = {
      {"the next one of the same node", three, pair, "C:0->1 D:0->2", {{0, 1}}, {}, {{0, 2}}},
      {"all of a node", three, pair, "C:0->1 D:0->2", {{0, 1}, {0, 2}}, {}, {{1, 0}}},
      {"those of a second round", three, pair, "C:0->1 D:0->2", {{0, 1}, {1, 0}}, {{0, 2}}, {}},
      {"what a kept node still serves", three, pair, "#0 D:0->2", {{0, 1}}, {{0, 2}}, {}},
      {"next to one that is taken", "Q x -> a; Q x -> b; Q x -> c; Q x -> d", pair, "C:0->1 D:0->2", {{0, 1}}, {{0, 2}}, {{1, 3}}},
      {"another part makes no new one", "A x -> a; B y -> b; B z -> c; A u -> d", "A:0->1 B:2->3", "C:0->1 #1", {{0, 1}}, {}, {{3, 1}}},
      {"the same nodes in other parts are another one", three, pair, "C:0->1 D:0->2", {{0, 1}, {0, 2}, {1, 0}, {2, 0}}, {}, {{1, 2}}},
      {"none left", "A x -> a", "A:0->1", "C:0->1", {{0}}, {}, {}},
  };
  // clang-format on
  for (const Refusals& test : table) {
    const GraphTable graph = make_graph(test.graph);
    const Rule rule = make_rule(test.pattern, test.replacement);
    RefusedSet refused;
    Claims claims(graph.original_count());
    for (const Assignment& nodes : test.refused) refused.add(rule, nodes);
    for (const Assignment& nodes : test.taken) claims.add(rule, nodes);
    EXPECT_EQ(assignments(search(graph, rule, claims, refused)), test.expected) << test.what;
  }
}

TEST(Search, RefusedOnesAreKnownInAnyNumber) {
  const Rule rule = make_rule("A:0->1 B:1->2", "C:0->2");
  RefusedSet refused;
  const auto nodes = [](NodeIndex number) { return Assignment{number, number * 7 % 1000}; };
  for (NodeIndex number = 0; number < 1000; number += 2) {
    refused.add(rule, nodes(number));
    refused.add(rule, nodes(number));
  }
  for (NodeIndex number = 0; number < 1000; ++number) {
    EXPECT_EQ(refused.contains(rule, nodes(number)), number % 2 == 0) << number;
  }
}

TEST(Search, IsInterrupted) {
  struct Interruption {};
  const GraphTable graph = make_graph("A x -> a; A y -> b; A z -> c; A u -> d; A v -> e; A w -> f; A s -> g; A t -> h");
  interruption_check = [] { throw Interruption{}; };
  EXPECT_THROW(search(graph, make_rule("A:0->1 A:2->3 A:4->5 A:6->7 A:8->9", "#0 #1 #2 #3 #4")), Interruption);
  interruption_check = nullptr;
}

}  // namespace
}  // namespace onnxgraft::core
