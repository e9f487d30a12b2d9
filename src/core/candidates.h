// Which graph nodes can play which pattern node: a superset that is exact for patterns shaped like a tree.
//
// First every node is judged by itself, then nodes go whose tensors no candidate of a neighbouring pattern
// node shares, until nothing changes. What is left makes the search go forward nearly without a step back.
#pragma once

#include <span>
#include <utility>
#include <vector>

#include "core/graph_table.h"
#include "core/rule.h"

namespace onnxgraft::core {

class Candidates {
 public:
  Candidates(const GraphTable& table, const Rule& rule);

  /// False if some pattern node has no candidate at all.
  [[nodiscard]] bool possible() const { return possible_; }
  [[nodiscard]] bool contains(std::uint32_t role, NodeIndex node) const;

  /// A sorted run of candidates: positions [begin, end) of list number `list`.
  struct Range {
    std::size_t list = 0;
    std::size_t begin = 0;
    std::size_t end = 0;
    [[nodiscard]] std::size_t size() const { return end - begin; }
  };
  [[nodiscard]] Range all(std::uint32_t role) const { return {role, 0, by_role_[role].size()}; }
  /// Candidates of `role` that read `name` at input `slot`. Indexes are built when first asked for.
  Range readers(std::uint32_t role, std::uint32_t slot, NameId name);
  [[nodiscard]] NodeIndex at(std::size_t list, std::size_t position) const {
    return list < by_role_.size() ? by_role_[list][position]
                                  : indexes_[list - by_role_.size()].readers[position].second;
  }
  [[nodiscard]] std::size_t list_size(std::size_t list) const {
    return list < by_role_.size() ? by_role_[list].size() : indexes_[list - by_role_.size()].readers.size();
  }

 private:
  struct ReaderIndex {
    std::uint32_t role = 0;
    std::uint32_t slot = 0;
    std::vector<std::pair<NameId, NodeIndex>> readers;  // sorted
  };

  void judge_each_node();
  void prune();
  bool prune_link(const Link& link);
  std::size_t build_index(std::uint32_t role, std::uint32_t slot);
  [[nodiscard]] NameId tensor(NodeIndex node, std::uint32_t slot) const;

  const GraphTable& table_;
  const Rule& rule_;
  std::vector<std::vector<NodeIndex>> by_role_;
  std::vector<ReaderIndex> indexes_;
  std::vector<std::uint32_t> support_;  // per name, for prune_link
  std::uint32_t support_base_ = 0;
  bool possible_ = true;
};

}  // namespace onnxgraft::core
