// Occurrences of a rule, and which nodes they claim.
//
// Flat arrays, since a round may find tens of thousands of occurrences. The search fills them, the splice plan and the
// pass read them by index. Nothing here knows why an occurrence was chosen. What it does to a node follows from the
// rule alone: a node that plays a kept pattern node is claimed as kept, any other as removed.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/graph_table.h"
#include "core/rule.h"

namespace onnxgraft::core {

/// Occurrences of one rule, in the order found: for each the graph node of every pattern node and the tensor of every
/// link of the rule. Links that only the replacement has are `no_name` until the splice plan names them.
class OccurrenceList {
 public:
  /// An empty list. The rule fixes how many nodes and links an occurrence has, and is not kept.
  explicit OccurrenceList(const Rule& rule) : node_stride_(rule.nodes.size()), link_stride_(rule.links.size()) {}

  [[nodiscard]] std::size_t size() const { return nodes_.size() / node_stride_; }
  [[nodiscard]] bool empty() const { return nodes_.empty(); }
  [[nodiscard]] std::span<const NodeIndex> nodes(std::size_t index) const {
    return std::span(nodes_).subspan(index * node_stride_, node_stride_);
  }
  [[nodiscard]] std::span<const NameId> links(std::size_t index) const {
    return std::span(links_).subspan(index * link_stride_, link_stride_);
  }
  [[nodiscard]] std::span<NameId> links(std::size_t index) {
    return std::span(links_).subspan(index * link_stride_, link_stride_);
  }
  void add(std::span<const NodeIndex> nodes, std::span<const NameId> links) {
    nodes_.insert(nodes_.end(), nodes.begin(), nodes.end());
    links_.insert(links_.end(), links.begin(), links.end());
  }

 private:
  std::size_t node_stride_;
  std::size_t link_stride_;
  std::vector<NodeIndex> nodes_;
  std::vector<NameId> links_;
};

/// What an occurrence does to a node.
enum class Claim : std::uint8_t { none, kept, removed };

/// What the occurrences chosen so far do to each original node. A removed node takes part in no other occurrence. A
/// kept node may serve several, as long as none of them removes it. Within a round claims only grow, which is why the
/// search may jump over candidates that were claimed once.
class Claims {
 public:
  explicit Claims(NodeIndex count) : claims_(count, Claim::none) {}

  [[nodiscard]] Claim of(NodeIndex node) const { return claims_[node]; }
  /// The innermost question of the search: one byte per node.
  [[nodiscard]] bool usable(NodeIndex node, const PatternNode& role) const {
    return claims_[node] == Claim::none || (claims_[node] == Claim::kept && role.kept);
  }
  /// Claims the nodes of one occurrence. The caller has tested that they are usable.
  void add(const Rule& rule, std::span<const NodeIndex> nodes) {
    for (std::size_t index = 0; index < nodes.size(); ++index) {
      claims_[nodes[index]] = rule.nodes[index].kept ? Claim::kept : Claim::removed;
    }
  }

 private:
  std::vector<Claim> claims_;
};

}  // namespace onnxgraft::core
