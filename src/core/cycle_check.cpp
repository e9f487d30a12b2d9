// The walk of cycle_check.h: from an old tensor forward to everything that depends on it.
//
// Edges are those of the graph after the replacement. Nodes of the assignment have none of their own; in their place
// the rule's dependencies connect the tensors of the pattern. Of several writers of one tensor only the first has an
// edge to it, as everywhere in the matcher.
#include "core/cycle_check.h"

#include <algorithm>
#include <unordered_set>

namespace onnxgraft::core {

CycleCheck::CycleCheck(const GraphTable& table, const Rule& rule) : table_(table), rule_(rule) {
  if (rule.new_dependencies.empty() && rule.new_body_dependencies.empty()) return;
  for (NodeIndex node = 0; node < table.original_count(); ++node) {
    for (const NameId name : table.implicit_inputs(node)) body_reads_.emplace_back(name, node);
  }
  has_bodies_ = !body_reads_.empty();
  std::ranges::sort(body_reads_);
  for (const auto& [name, node] : body_reads_) body_nodes_.push_back(node);
}

std::span<const NodeIndex> CycleCheck::body_readers(NameId name) const {
  const auto found = std::ranges::equal_range(body_reads_, name, {}, [](const auto& read) { return read.first; });
  return std::span(body_nodes_).subspan(static_cast<std::size_t>(found.begin() - body_reads_.begin()), found.size());
}

bool CycleCheck::closes_cycle(std::span<const NodeIndex> nodes, std::span<const NameId> names) {
  // Dependencies that existed before cannot close a new cycle, so only new ones are looked at.
  const bool over_input = std::ranges::any_of(rule_.new_dependencies, [&](const Rule::Dependency& dependency) {
    return reaches(names[dependency.output], names[dependency.input], nodes, names);
  });
  return over_input || std::ranges::any_of(rule_.new_body_dependencies, [&](const Rule::BodyDependency& dependency) {
           return std::ranges::any_of(table_.implicit_inputs(nodes[dependency.node]), [&](NameId read) {
             return reaches(names[dependency.output], read, nodes, names);
           });
         });
}

/// Whether `target` would depend on `from` once this assignment is replaced.
bool CycleCheck::reaches(NameId from, NameId target, std::span<const NodeIndex> nodes, std::span<const NameId> names) {
  std::unordered_set<NameId> seen{from};
  std::vector<NameId> open{from};
  const auto visit = [&](NameId name) {
    if (seen.insert(name).second) open.push_back(name);
  };
  const auto visit_outputs = [&](std::span<const NodeIndex> readers) {
    for (const NodeIndex reader : readers) {
      // Nodes of the assignment count as the replacement connects them, which the rule's dependencies say below.
      if (std::ranges::find(nodes, reader) != nodes.end()) continue;
      for (const NameId output : table_.outputs(reader)) {
        // A second writer of a name is not what readers of the name depend on.
        if (table_.producer(output) == reader) visit(output);
      }
    }
  };
  while (!open.empty()) {
    work_.step();
    const NameId at = open.back();
    open.pop_back();
    if (at == target) return true;
    visit_outputs(table_.readers(at));
    visit_outputs(body_readers(at));
    for (const Rule::Dependency& dependency : rule_.dependencies) {
      if (names[dependency.input] == at) visit(names[dependency.output]);
    }
    for (const Rule::BodyDependency& dependency : rule_.body_dependencies) {
      const auto read = table_.implicit_inputs(nodes[dependency.node]);
      if (std::ranges::find(read, at) != read.end()) visit(names[dependency.output]);
    }
  }
  return false;
}

}  // namespace onnxgraft::core
