// Whether a replacement would close a cycle at one assignment.
//
// Only a rule whose replacement makes an old tensor depend on a new outside input can do that (rule_dependencies.h).
// For these the graph after the tensor is walked, and the assignment's own nodes count as what the replacement makes of
// them. Each assignment is judged by itself: claims and other occurrences are unknown here. The walk keeps its own
// stack, because graphs are deep.
#pragma once

#include <span>
#include <vector>

#include "core/graph_table.h"
#include "core/interruption.h"
#include "core/rule.h"

namespace onnxgraft::core {

class CycleCheck {
 public:
  CycleCheck(const GraphTable& table, const Rule& rule);

  /// The search asks this once per assignment. For most rules it is false, and the graph is never walked.
  [[nodiscard]] bool needed() const {
    return !rule_.new_dependencies.empty() || (has_bodies_ && !rule_.new_body_dependencies.empty());
  }
  /// `nodes` and `names` are a complete assignment: a graph node per pattern node, a tensor per link.
  bool closes_cycle(std::span<const NodeIndex> nodes, std::span<const NameId> names);

 private:
  // Work counts its steps, because a walk may visit the whole graph for every assignment.
  bool reaches(NameId from, NameId target, std::span<const NodeIndex> nodes, std::span<const NameId> names);
  [[nodiscard]] std::span<const NodeIndex> body_readers(NameId name) const;

  const GraphTable& table_;
  const Rule& rule_;
  Interruptible work_;
  bool has_bodies_ = false;
  // Which nodes have bodies that read a name. The table only knows that some body reads it, since no other question
  // needs more. Filled only if the rule has new dependencies.
  std::vector<std::pair<NameId, NodeIndex>> body_reads_;  // sorted by name
  std::vector<NodeIndex> body_nodes_;                     // parallel to `body_reads_`
};

}  // namespace onnxgraft::core
