// What a round of replacements does to the list of nodes, as data: the new nodes with their names and links, and the
// order of the list.
//
// Nothing here touches a graph; the writer above carries the plan out. The plan of any subset of the occurrences can be
// asked for, and that is how refused ones are taken back: the list is arranged again without them. Invariant: names and
// rows are made once, for all occurrences, so they do not depend on which of them are accepted.
#pragma once

#include <span>
#include <vector>

#include "core/fresh_names.h"
#include "core/graph_table.h"
#include "core/occurrence.h"
#include "core/rule.h"

namespace onnxgraft::core {

class SplicePlan {
 public:
  /// Names the new links of every occurrence and adds the new nodes to the table. The table must have all names of the
  /// graph, those of nodes included; otherwise a new name could equal an old one.
  SplicePlan(GraphTable& table, const Rule& rule, OccurrenceList& occurrences);

  /// Graph node of a replacement entry: the matched node if it is kept, or a new one.
  [[nodiscard]] NodeIndex entry_node(std::size_t occurrence, std::size_t entry) const {
    return entry_nodes_[(occurrence * rule_.entries.size()) + entry];
  }
  [[nodiscard]] NodeIndex first_new_node() const { return first_new_; }
  /// Matched node that a new node copies, `no_index` for one made from scratch.
  [[nodiscard]] NodeIndex copied_from(NodeIndex new_node) const { return copied_from_[new_node - first_new_]; }

  /// The list `before` with the chosen occurrences spliced in. Exact for every choice: the result does not depend on
  /// what was arranged before.
  [[nodiscard]] std::vector<NodeIndex> arrange(std::span<const NodeIndex> before,
                                               const std::vector<bool>& chosen) const;

 private:
  void name_links(std::span<const NodeIndex> nodes, std::span<NameId> links, FreshNames& fresh) const;
  [[nodiscard]] NameId name_node(std::span<const NodeIndex> nodes, std::size_t number, FreshNames& fresh) const;
  void add_nodes(std::size_t occurrence, FreshNames& fresh);
  [[nodiscard]] std::string label(NodeIndex node) const;

  GraphTable& table_;
  const Rule& rule_;
  OccurrenceList& occurrences_;
  NodeIndex first_new_;
  std::vector<NodeIndex> entry_nodes_;  // `entries` per occurrence
  std::vector<NodeIndex> copied_from_;  // by new node, from `first_new_` on
};

}  // namespace onnxgraft::core
