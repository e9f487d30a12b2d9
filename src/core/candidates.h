// For each pattern node the graph nodes that can play it.
//
// First every node is judged by itself (local_match.h). Then nodes go whose tensors no candidate of a neighbouring
// pattern node shares, until nothing changes. For patterns shaped like a tree the result is exact, for others it is a
// superset, so the search (search.h) rarely has to step back. Invariant: a node that takes part in any assignment is
// never dropped. Claims and refusals are unknown here, so one object serves all rounds of a pass.
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
  /// The search asks this for each producer before it binds it: a binary search instead of a second judgement.
  [[nodiscard]] bool contains(std::uint32_t role, NodeIndex node) const;

  /// A sorted run of candidates: positions [begin, end) of list number `list`. The first lists hold all candidates of
  /// one pattern node each, the lists after them are reader indexes. A pair (list, position) means the same candidate
  /// as long as the object lives. The search relies on that: its jumps over claimed and refused candidates are stored
  /// by position.
  struct Range {
    std::size_t list = 0;
    std::size_t begin = 0;
    std::size_t end = 0;
    [[nodiscard]] std::size_t size() const { return end - begin; }
  };
  [[nodiscard]] Range all(std::uint32_t role) const { return {role, 0, by_role_[role].size()}; }
  /// Candidates of `role` that read `name` at input `slot`. The search asks this for each tensor that it binds. The
  /// index over one input is built at the first question and serves all rounds. It saves walks over readers that can
  /// play no part: a tensor like an attention mask has one in every layer.
  Range readers(std::uint32_t role, std::uint32_t slot, NameId name);
  [[nodiscard]] NodeIndex at(std::size_t list, std::size_t position) const {
    return list < by_role_.size() ? by_role_[list][position]
                                  : indexes_[list - by_role_.size()].readers[position].second;
  }
  [[nodiscard]] std::size_t list_size(std::size_t list) const {
    return list < by_role_.size() ? by_role_[list].size() : indexes_[list - by_role_.size()].readers.size();
  }

 private:
  /// The candidates of one pattern node, by the tensor that they read at one input.
  struct ReaderIndex {
    std::uint32_t role = 0;
    std::uint32_t slot = 0;
    std::vector<std::pair<NameId, NodeIndex>> readers;  // sorted
  };

  // The two filters, in this order. Each leaves the lists of nodes sorted, which is also the order of the search.
  void judge_each_node();
  void prune();
  bool prune_link(const Link& link);
  std::size_t build_index(std::uint32_t role, std::uint32_t slot);
  /// The tensor of a node at an input, or at its output for a slot of its own.
  [[nodiscard]] NameId tensor(NodeIndex node, std::uint32_t slot) const;

  const GraphTable& table_;
  const Rule& rule_;
  std::vector<std::vector<NodeIndex>> by_role_;
  std::vector<ReaderIndex> indexes_;
  // Per name, for prune_link: the number of places of the current link that have a candidate with this tensor, plus the
  // base. The base rises with every link, so the array need not be cleared between links.
  std::vector<std::uint32_t> support_;
  std::uint32_t support_base_ = 0;
  bool possible_ = true;
};

}  // namespace onnxgraft::core
