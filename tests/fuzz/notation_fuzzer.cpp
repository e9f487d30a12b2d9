// Feeds any bytes as a pattern and a replacement list. The outcome must be a rule or a NotationError, nothing else.
//
// Every line is a string of the pattern list; an empty line starts the replacement list. A pair that is accepted is
// then searched and spliced in a graph made from its own pattern, which must not crash, and must keep the list of nodes
// as it is when no occurrence is chosen. Run under the sanitizers.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "../core/graph_text.h"
#include "core/errors.h"
#include "core/splice_plan.h"

namespace {

using namespace onnxgraft::core;

/// The pattern list and the replacement list.
std::array<Texts, 2> read_lists(const std::string& text) {
  std::array<Texts, 2> lists;
  std::size_t list = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) {
      list = 1;
    } else {
      lists.at(list).push_back(line);
    }
  }
  return lists;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [pattern, replacement] = read_lists({reinterpret_cast<const char*>(data), size});
  try {
    const Rule rule = compile_rule(pattern, replacement);
    // Long patterns of one operator have very many assignments; they would only slow the fuzzer down.
    if (rule.nodes.size() > 12) return 0;
    GraphTable table = graph_of(rule);
    OccurrenceList found = search(table, rule);
    const SplicePlan plan(table, rule, found);
    const std::vector<NodeIndex> before = all_nodes(table);
    if (plan.arrange(before, std::vector<bool>(found.size(), false)) != before) std::abort();
    if (plan.arrange(before, std::vector<bool>(found.size(), true)).size() > table.node_count()) std::abort();
  } catch (const NotationError&) {
    return 0;
  }
  return 0;
}
