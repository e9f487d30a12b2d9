// How far the best attempt got, why it ended there, and the sentence that a user reads. One row per reason at least.
#include "core/nearest_miss.h"

#include <gtest/gtest.h>

#include "graph_text.h"

namespace onnxgraft::core {
namespace {

struct Case {
  const char* graph;
  const char* pattern;
  const char* replacement;
  Reason reason;
  const char* text;
};

// clang-format off: a table
const Case cases[] = {
    {"A x -> a", "A:0->1", "#0", Reason::none, ""},
    {"A x -> a", "A:0->1 B:1->2", "#0 #1", Reason::missing_operator, "the graph has no B node"},
    {"A x -> a; D a -> d; B y -> b", "A:0->1 B:1->2", "#0 #1", Reason::wrong_operator,
     "1 of 2 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (B): D node 1 (writes 'd') is not a B"},
    {"B x -> b; C b -> c; A y -> a", "B:0->1 A:1->2", "#0 #1", Reason::wrong_operator,
     "1 of 2 pattern nodes matched, the last one B node 0 (writes 'b'); pattern node 1 (A): C node 1 (writes 'c') is not an A"},
    {"A x -> a,b", "A:0->1", "#0", Reason::output_count, "0 of 1 pattern nodes matched; pattern node 0 (A): A node 0 (writes 'a') does not have exactly one output"},
    {"B x -> a; A x -> a", "A:0->1", "#0", Reason::second_producer, "0 of 1 pattern nodes matched; pattern node 0 (A): an earlier node also writes 'a'"},
    {"A x,y -> a", "A:0->1", "#0", Reason::input_count, "0 of 1 pattern nodes matched; pattern node 0 (A): the number of inputs of A node 0 (writes 'a') differs from the pattern"},
    {"A ,x -> a", "A:0,1->2", "#0", Reason::input_omitted, "0 of 1 pattern nodes matched; pattern node 0 (A): input 0 of A node 0 (writes 'a') is omitted"},
    {"A x,y -> a", "A:0,1i->2", "#0", Reason::not_initializer, "0 of 1 pattern nodes matched; pattern node 0 (A): input 1 of A node 0 (writes 'a'), 'y', is not an initializer of the graph"},
    {"A x,y -> a", "A:0,~i->2", "#0", Reason::rest_not_initializer,
     "0 of 1 pattern nodes matched; pattern node 0 (A): input 1 of A node 0 (writes 'a'), 'y', is computed: all inputs from this one on must be initializers"},
    {"A x,y -> a", "A:0,0->2", "#0", Reason::different_tensors, "0 of 1 pattern nodes matched; pattern node 0 (A): A node 0 (writes 'a') has a tensor other than 'y' at input 1"},
    {"A x -> a; B y,a -> b", "A:0->1 B:1,2->3", "#0 #1", Reason::other_position,
     "1 of 2 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (B): B node 1 (writes 'b') reads 'a', but not at input 0"},
    {"A x -> a; B a -> b; output a", "A:0->1 B:1->2", "C:0->2", Reason::graph_output, "0 of 2 pattern nodes matched; pattern node 0 (A): 'a' is an output of the graph"},
    {"A x -> a; B a -> b; If c -> d reads a", "A:0->1 B:1->2", "C:0->2", Reason::read_by_body, "0 of 2 pattern nodes matched; pattern node 0 (A): 'a' is read inside a nested graph"},
    {"A x -> a; B a -> b; D a -> d", "A:0->1 B:1->2", "C:0->2", Reason::read_elsewhere, "0 of 2 pattern nodes matched; pattern node 0 (A): 'a' is also read by D node 2 (writes 'd')"},
    {"A x -> a; B a -> b; B a -> c", "A:0->1 B:1->2", "C:0->2", Reason::read_elsewhere, "0 of 2 pattern nodes matched; pattern node 0 (A): 'a' is also read by B node 2 (writes 'c')"},
    {"A x -> a; B a -> b", "A:0->1 B:1->2 B:1->3", "#0 #1 #2", Reason::too_few_readers, "0 of 3 pattern nodes matched; pattern node 0 (A): too few nodes read 'a'"},
    {"A x -> a; B a,a -> b", "A:0->1 B:1,2->3", "C:0->3", Reason::same_tensor,
     "1 of 2 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (B): two ids of the pattern would both be 'a', and the replacement removes the node that writes it"},
    {"A x -> a; B a -> b; D a -> c", "A:0->1 B:1->2 B:1->3", "#0 #1 #2", Reason::node_used_twice,
     "2 of 3 pattern nodes matched, the last one B node 1 (writes 'b'); pattern node 2 (B): B node 1 (writes 'b') already matches another node of the pattern"},
    {"B x -> b; A y -> a", "B:1->2 A:0->1", "#0 #1", Reason::no_producer,
     "1 of 2 pattern nodes matched, the last one B node 0 (writes 'b'); pattern node 1 (A): no node writes 'x'"},
    {"A x -> a; B x -> b; D y -> d", "A:0->1 B:0->2 D:2->3", "#0 #1 #2", Reason::wrong_operator,
     "1 of 3 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (B): A node 0 (writes 'a') is not a B"},
    {"A x -> a; B a -> b; G b -> g", "A:0->1 G:2->3", "#0:0,3->1 #1", Reason::closes_cycle,
     "2 of 2 pattern nodes matched, the last one G node 2 (writes 'g'); pattern node 1 (G): the replacement would close a cycle"},
    {"A x -> a", "A:0->1 A:2->3", "#0 #1", Reason::node_used_twice,
     "1 of 2 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (A): A node 0 (writes 'a') already matches another node of the pattern"},
    {"A x,y -> a; B z -> b; A u,b -> c", "A:0,1->2 B:3->1", "#0 #1", Reason::none, ""},
    {"A x -> a; B a -> b; D b -> d; A y -> c; B c -> e; B e -> f", "A:0->1 B:1->2 B:2->3", "#0 #1 #2", Reason::none, ""},
    {"B y -> e; D e -> f; A x -> a; B a -> b; D b -> d", "A:0->1 B:1->2 D:2,3->4", "#0 #1 #2", Reason::input_count,
     "2 of 3 pattern nodes matched, the last one B node 3 (writes 'b'); pattern node 2 (D): the number of inputs of D node 4 (writes 'd') differs from the pattern"},
    {"A x,y -> a; D a -> d", "A:0,1->1", "#0", Reason::different_tensors, "0 of 1 pattern nodes matched; pattern node 0 (A): A node 0 (writes 'a') has a tensor other than 'a' at input 1"},
    {"A x -> a; B a -> b; D y,z -> d", "A:0->1 D:5->6 B:1->2", "#0 #1 #2", Reason::input_count,
     "2 of 3 pattern nodes matched, the last one B node 1 (writes 'b'); pattern node 1 (D): the number of inputs of D node 2 (writes 'd') differs from the pattern"},
    {"A x -> a; B a -> b; D y,z -> d", "B:1->2 D:5->6 A:0->1", "#0 #1 #2", Reason::input_count,
     "2 of 3 pattern nodes matched, the last one A node 0 (writes 'a'); pattern node 1 (D): the number of inputs of D node 2 (writes 'd') differs from the pattern"},

};
// clang-format on

TEST(NearestMiss, SaysHowFarAndWhy) {
  for (const Case& test : cases) {
    const GraphTable table = make_graph(test.graph);
    const Rule rule = make_rule(test.pattern, test.replacement);
    const auto miss = find_nearest_miss(table, rule);
    EXPECT_EQ(miss ? miss->reason : Reason::none, test.reason) << test.graph;
    EXPECT_EQ(miss ? describe(table, rule, *miss) : "", test.text) << test.graph;
    EXPECT_EQ(!miss, !search(table, rule).empty()) << test.graph;
  }
}

}  // namespace
}  // namespace onnxgraft::core
