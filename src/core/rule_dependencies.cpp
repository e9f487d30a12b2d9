// Reachability over the links of a pattern and of its replacement.
//
// Both are small graphs of a dozen links, so every output is searched from by itself and clarity counts more than
// speed. A dependency is new if the replacement has it and the pattern does not. Example: pattern "A:0->1", "G:2->3"
// with the replacement "#0:0,3->1", "#1". Tensor 1 comes to depend on 2, which in some graph may depend on 1.
#include "core/rule_dependencies.h"

#include <algorithm>
#include <utility>

namespace onnxgraft::core {

namespace {

/// A small directed graph over links: an edge leads from a node's output to each of its inputs.
using Edges = std::vector<std::vector<LinkId>>;

/// What depends on what before the rewrite.
Edges pattern_edges(const Rule& rule) {
  Edges edges(rule.links.size());
  for (const PatternNode& node : rule.nodes) {
    for (const LinkUse& use : node.inputs) edges[node.output].push_back(use.link);
  }
  return edges;
}

/// The same after it. A kept node has its old inputs, a copy those that the string states.
Edges replacement_edges(const Rule& rule) {
  Edges edges(rule.links.size());
  for (const ReplacementEntry& entry : rule.entries) {
    const auto& inputs = entry.kind == EntryKind::keep ? rule.nodes[entry.source].inputs : entry.inputs;
    for (const LinkUse& use : inputs) edges[entry.output].push_back(use.link);
  }
  return edges;
}

/// Links that `from` reaches over at least one edge.
std::vector<bool> reachable(const Edges& edges, LinkId from) {
  std::vector<bool> seen(edges.size(), false);
  std::vector<LinkId> open{from};
  while (!open.empty()) {
    const LinkId at = open.back();
    open.pop_back();
    for (const LinkId next : edges[at]) {
      if (seen[next]) continue;
      seen[next] = true;
      open.push_back(next);
    }
  }
  return seen;
}

bool is_written(const Rule& rule, LinkId link) {
  return std::ranges::any_of(rule.entries, [&](const ReplacementEntry& entry) { return entry.output == link; });
}

}  // namespace

void find_dependencies(Rule& rule) {
  const Edges before = pattern_edges(rule);
  const Edges after = replacement_edges(rule);
  for (LinkId output = 0; output < rule.links.size(); ++output) {
    // Only tensors that exist before and after: one that vanishes has no users left, a new one has none yet.
    if (rule.links[output].writer == no_node || !is_written(rule, output)) continue;
    std::vector<bool> old_inputs = reachable(before, output);
    std::vector<bool> new_inputs = reachable(after, output);
    for (LinkId input = 0; input < rule.links.size(); ++input) {
      const Link& link = rule.links[input];
      // Only computed tensors can depend on an output, so an initializer cannot close a cycle.
      if (!link.in_pattern || link.initializer || !new_inputs[input]) continue;
      rule.dependencies.push_back({output, input});
      if (link.writer == no_node && !old_inputs[input]) rule.new_dependencies.push_back({output, input});
    }
    // What bodies read belongs to the node: the output depends on it if it depends on what the node writes.
    old_inputs[output] = true;
    new_inputs[output] = true;
    for (const ReplacementEntry& entry : rule.entries) {
      if (entry.source == no_node || !new_inputs[entry.output]) continue;
      rule.body_dependencies.push_back({output, entry.source});
      if (!old_inputs[rule.nodes[entry.source].output]) rule.new_body_dependencies.push_back({output, entry.source});
    }
  }
}

std::size_t find_own_cycle(const Rule& rule) {
  const Edges before = pattern_edges(rule);
  const Edges after = replacement_edges(rule);
  std::size_t index = 0;
  for (; index < rule.entries.size(); ++index) {
    const LinkId output = rule.entries[index].output;
    if (reachable(after, output)[output] && !reachable(before, output)[output]) break;
  }
  return index;
}

}  // namespace onnxgraft::core
