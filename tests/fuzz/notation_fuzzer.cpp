// Any bytes as a pattern and a replacement list: a rule or a NotationError, nothing else. Lines are strings, an empty
// line begins the replacement list. What is accepted must match its own pattern, laid out as a graph, without a fault.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "core/candidates.h"
#include "core/errors.h"
#include "core/graph_table.h"
#include "core/rule.h"
#include "core/search.h"
#include "core/splice_plan.h"

namespace {

using namespace onnxgraft::core;

struct Lists {
  std::vector<std::string> pattern;
  std::vector<std::string> replacement;
};

Lists read_lists(const std::string& text) {
  Lists lists;
  std::vector<std::string>* list = &lists.pattern;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    if (line.empty()) {
      list = &lists.replacement;
    } else {
      list->push_back(std::move(line));
    }
  }
  return lists;
}

/// The pattern itself as a graph; its initializers are initializers.
GraphTable graph_of(const Rule& rule) {
  GraphTable table;
  const auto name = [&](LinkId link) { return table.names.intern("t" + rule.links[link].id); };
  for (const PatternNode& node : rule.nodes) {
    std::vector<NameId> inputs(node.inputs.size());
    std::ranges::transform(node.inputs, inputs.begin(), [&](const LinkUse& use) { return name(use.link); });
    const std::vector<NameId> outputs{name(node.output)};
    table.add_node(table.ops.intern(node.op), inputs, outputs);
    table.node_names.push_back(no_name);
  }
  for (LinkId link = 0; link < rule.links.size(); ++link) {
    if (rule.links[link].initializer) table.add_initializer(name(link));
  }
  table.seal();
  return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Lists lists = read_lists({reinterpret_cast<const char*>(data), size});
  try {
    const Rule rule = compile_rule(lists.pattern, lists.replacement);
    if (rule.nodes.size() > 12) return 0;
    GraphTable table = graph_of(rule);
    Candidates candidates(table, rule);
    Claims claims(table.original_count());
    OccurrenceList found = Search(table, rule, candidates, claims, {}).run();
    const SplicePlan plan(table, rule, found);
    std::vector<NodeIndex> before(table.original_count());
    std::iota(before.begin(), before.end(), NodeIndex{0});
    if (plan.arrange(before, std::vector<bool>(found.size(), false)) != before) std::abort();
    if (plan.arrange(before, std::vector<bool>(found.size(), true)).size() > table.node_count()) std::abort();
  } catch (const NotationError&) {
    return 0;
  }
  return 0;
}
