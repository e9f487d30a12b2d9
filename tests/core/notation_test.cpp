// The notation and the checks of a pair of lists: what is accepted, what is refused, at which column, and with which
// words.
#include "core/notation.h"

#include <gtest/gtest.h>

#include "core/errors.h"
#include "graph_text.h"

namespace onnxgraft::core {
namespace {

std::string refusal(const Texts& pattern, const Texts& replacement) {
  try {
    compile_rule(pattern, replacement);
  } catch (const NotationError& error) {
    return error.what();
  }
  return "(accepted)";
}

struct BadString {
  const char* text;
  const char* where;     // "column 5"
  const char* expected;  // part of what the message asks for
};

TEST(Notation, MalformedStringsAreRefusedWithTheirColumn) {
  const BadString in_both[] = {
      {"", "column 1:", "operator name"},
      {"Relu", "column 5:", "':'"},
      {"Re lu:1->2", "column 3:", "expected ':' after the operator name"},
      {"Relu:", "column 6:", "tensor id"},
      {"Relu:1", "column 7:", "'->'"},
      {"Relu:1-2", "column 7:", "'->'"},
      {"Relu:1,->2", "column 8:", "tensor id"},
      {"Relu:x->2", "column 6:", "tensor id"},
      {"Relu:1ii->2", "column 8:", "',' or '->' after an input"},
      {"Relu:1->", "column 9:", "tensor id (decimal digits) after '->'"},
      {"Relu:1->2i", "column 10:", "nothing after the output id"},
  };
  const BadString in_patterns[] = {
      {"#0", "column 1:", "replacements only"},
      {"Relu:~->2", "column 7:", "'i' after '~'"},
      {"Relu:~i,1->2", "column 8:", "last input"},
      {"Relu:1~i->2", "column 7:", "',' or '->'"},
  };
  const BadString in_replacements[] = {
      {"#", "column 2:", "number of a pattern node after '#'"},
      {"#0->2", "column 3:", "':' or the end of the string after '#0'"},
      {"#0:", "column 4:", "tensor id"},
      {"#0:1", "column 5:", "'->'"},
      {"#0:~i->2", "column 4:", "patterns only"},
      {"Relu:1,~i->2", "column 8:", "patterns only"},
      {"#1", "column 2:", "nodes 0 to 0"},
      {"#4294967296", "column 2:", "nodes 0 to 0"},
      {"#99999999999999999999999999", "column 2:", "nodes 0 to 0"},
  };
  const auto check = [](const BadString& bad, const std::string& list, const std::string& message) {
    EXPECT_NE(message.find(list + " string 0 (\"" + bad.text + "\")"), std::string::npos) << message;
    EXPECT_NE(message.find(bad.where), std::string::npos) << message;
    EXPECT_NE(message.find(bad.expected), std::string::npos) << message;
  };
  for (const BadString& bad : in_both) {
    check(bad, "pattern", refusal({bad.text}, {}));
    check(bad, "replacement", refusal({"Relu:1->2"}, {bad.text}));
  }
  for (const BadString& bad : in_patterns) check(bad, "pattern", refusal({bad.text}, {}));
  for (const BadString& bad : in_replacements) check(bad, "replacement", refusal({"Relu:1->2"}, {bad.text}));
}

TEST(Notation, ListsThatDoNotFitTogetherAreRefused) {
  struct BadLists {
    Texts pattern;
    Texts replacement;
    Texts message;  // all of these are in it
  };
  const BadLists table[] = {
      {{}, {"Relu:1->2"}, {"pattern is empty"}},
      {{"A:1->2", "B:1->2"},
       {},
       {"pattern string 1 (\"B:1->2\"), column 6", "tensor 2 is already written by string 0"}},
      {{"A:1->2", "B:2i->3"}, {}, {"pattern string 1 (\"B:2i->3\"), column 3", "'2i' asks for an initializer"}},
      {{"B:0,2i->3", "A:1->2"}, {}, {"pattern string 0 (\"B:0,2i->3\"), column 5", "string 1 writes tensor 2"}},
      {{"A:1->2"},
       {"#0", "#0"},
       {"replacement string 1 (\"#0\")", "tensor 2 is already written by replacement string 0"}},
      {{"A:1->2"}, {"#0", "B:1->2"}, {"replacement string 1", "column 6", "written by replacement string 0"}},
      {{"A:1->2"}, {"B:1->2", "#0"}, {"replacement string 1", "column 2", "written by replacement string 0"}},
      {{"A:1->2"}, {"B:5->1"}, {"replacement string 0", "column 6", "tensor 1 comes from outside"}},
      {{"A:1,5i->2"}, {"B:1->5"}, {"replacement string 0", "column 6", "tensor 5 comes from outside"}},
      {{"A:1->2"}, {"B:1i->2"}, {"replacement string 0", "column 3", "tensor 1 is in the pattern without 'i'"}},
      {{"A:1->2"}, {"B:1->9", "C:9i->2"}, {"replacement string 1", "column 3", "string 0 writes tensor 9"}},
      {{"A:1->2"}, {"C:9i->2", "B:1->9"}, {"replacement string 0", "column 3", "string 1 writes tensor 9"}},
      {{"A:1->2"}, {"B:9->2"}, {"replacement string 0", "column 3", "nothing provides tensor 9"}},
      {{"A:1->2", "B:2->3"}, {"B:1,2->3"}, {"replacement string 0", "column 5", "nothing provides tensor 2"}},
      {{"A:1->2", "B:2->3"}, {"#1"}, {"replacement string 0 (\"#1\")", "nothing provides tensor 2"}},
      {{"A:1->2"}, {"B:1,9->8", "C:8->9", "A:9->2"}, {"replacement string", "itself"}},
      {{"B:8,4->9", "A:5->8"}, {"#0", "#1:9,9->8"}, {"replacement string", "itself"}},
      {{"A:1->2"}, {"B:01->2"}, {"nothing provides tensor 01"}},
  };
  for (const BadLists& bad : table) {
    const std::string message = refusal(bad.pattern, bad.replacement);
    for (const std::string& part : bad.message) EXPECT_NE(message.find(part), std::string::npos) << message;
  }
}

// Those that random pairs, which the tests of the package replace with, never hold.
TEST(Notation, ListsThatFitTogetherAreAccepted) {
  const std::pair<Texts, Texts> table[] = {
      {{"Q-Lin.Conv2:007,1i,~i->12"}, {"#0"}},            // whatever an operator may be called
      {{"A:1->2", "B:2->3"}, {"#00:->2", "#1"}},          // numbers, not text
      {{"A:1i->2", "B:1->3"}, {"B:1i->3", "A:1->2"}},     // "i" at one place is enough
      {{"A:1->2"}, {"B:1,9i->8", "C:9->7", "D:8,7->2"}},  // new initializer, named without "i" as well
      {{"A:1->2", "A:1->02"}, {"#0", "#1"}},              // ids are text: 2 and 02 differ
  };
  for (const auto& [pattern, replacement] : table) EXPECT_EQ(refusal(pattern, replacement), "(accepted)");
}

}  // namespace
}  // namespace onnxgraft::core
