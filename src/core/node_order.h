// The order of a node list after a splice.
#pragma once

#include <span>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::core {

/// Where new nodes stand relative to nodes of the list, before order is put right. Several at one place stand
/// in the order in which they were put there.
class Placement {
 public:
  explicit Placement(NodeIndex count) : removed_(count, false) {}

  void remove(NodeIndex node) { removed_[node] = true; }
  /// At the place of a node of the list; in front of it, and of what stands directly in front, if it stays.
  void put_at(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::at, node}); }
  /// Directly in front of a node, be it of the list or new.
  void put_in_front(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::front, node}); }
  void put_behind(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::behind, node}); }

  [[nodiscard]] std::vector<NodeIndex> apply(std::span<const NodeIndex> before);

 private:
  enum class Side : std::uint8_t { at, front, behind };
  struct Place {
    NodeIndex anchor;
    Side side;
    NodeIndex node;
  };
  [[nodiscard]] std::span<const Place> places(NodeIndex anchor) const {
    return std::span(places_).subspan(begin_[anchor], begin_[anchor + 1] - begin_[anchor]);
  }
  void sort_places();
  void write(NodeIndex node, std::vector<NodeIndex>& list) const;

  std::vector<bool> removed_;
  std::vector<Place> places_;
  std::vector<std::uint32_t> begin_;  // per anchor, once the places are sorted: where its own begin
};

/// Moves producers up in front of nodes that would come before them: for every edge with a new node at an end
/// (one that `before` lacks), and for edges between two old nodes that were in order in `before`. Nothing else
/// moves. Names that nested bodies read count as inputs.
std::vector<NodeIndex> put_in_order(const GraphTable& table, std::span<const NodeIndex> before,
                                    std::span<const NodeIndex> placed);

/// Takes nodes out of a list that others have changed and puts nodes of `before` back into it: each in front
/// of the next node of `before` that is in the list, else at the end.
std::vector<NodeIndex> put_back(std::span<const NodeIndex> now, std::span<const NodeIndex> before,
                                const std::vector<bool>& goes, const std::vector<bool>& comes_back);

}  // namespace onnxgraft::core
