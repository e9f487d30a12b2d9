#include "core/rule_dependencies.h"

#include <algorithm>
#include <utility>

namespace onnxgraft::core {

namespace {

/// A small directed graph over links: an edge leads from a node's output to each of its inputs.
using Edges = std::vector<std::vector<LinkId>>;

Edges pattern_edges(const Rule& rule) {
  Edges edges(rule.links.size());
  for (const PatternNode& node : rule.nodes) {
    for (const LinkUse& use : node.inputs) edges[node.output].push_back(use.link);
  }
  return edges;
}

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

}  // namespace

void find_dependencies(Rule& rule) {
  const Edges before = pattern_edges(rule);
  const Edges after = replacement_edges(rule);
  for (LinkId output = 0; output < rule.links.size(); ++output) {
    if (rule.links[output].writer == no_node || after[output].empty()) continue;
    const std::vector<bool> old_inputs = reachable(before, output);
    const std::vector<bool> new_inputs = reachable(after, output);
    for (LinkId input = 0; input < rule.links.size(); ++input) {
      const Link& link = rule.links[input];
      // Only a tensor from outside that is computed can depend on an output again.
      const bool outside = link.in_pattern && link.writer == no_node && !link.initializer;
      if (!outside || !new_inputs[input]) continue;
      rule.dependencies.push_back({output, input});
      if (!old_inputs[input]) rule.new_dependencies.push_back({output, input});
    }
  }
}

}  // namespace onnxgraft::core
