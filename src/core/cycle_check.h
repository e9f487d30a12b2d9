// Whether a replacement would close a cycle at one occurrence.
//
// Only rules whose replacement makes an old tensor depend on a new outside input can; for these the graph
// behind the tensor is walked, with the occurrence's own nodes replaced by what the replacement makes of them.
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

  [[nodiscard]] bool needed() const {
    return !rule_.new_dependencies.empty() || (has_bodies_ && !rule_.new_body_dependencies.empty());
  }
  /// `nodes` and `names`: graph node per pattern node, tensor per link.
  bool closes_cycle(std::span<const NodeIndex> nodes, std::span<const NameId> names);

 private:
  bool reaches(NameId from, NameId target, std::span<const NodeIndex> nodes, std::span<const NameId> names);
  [[nodiscard]] std::span<const NodeIndex> body_readers(NameId name) const;

  const GraphTable& table_;
  const Rule& rule_;
  Interruptible work_;
  bool has_bodies_ = false;
  std::vector<std::pair<NameId, NodeIndex>> body_reads_;  // sorted by name
  std::vector<NodeIndex> body_nodes_;                     // parallel to `body_reads_`
};

}  // namespace onnxgraft::core
