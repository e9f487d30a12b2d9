// The order of a node list after a splice, and after a refusal.
//
// Three steps, which see indices and names only: new nodes take their places (Placement), producers that would come too
// late move up (put_in_order), and removed nodes come back into a list that callbacks may have edited (put_back). Nodes
// that no occurrence touches keep their relative order unless topological order asks otherwise. Each step writes the
// list once, and nothing recurses: graphs are deep.
#pragma once

#include <span>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::core {

/// The places of new nodes relative to nodes of the list, before the order is repaired. Several at one place keep the
/// order in which they were put there. All places of a round are collected first and the list is written once: to
/// insert nodes one by one would move the rest of the list each time.
class Placement {
 public:
  explicit Placement(NodeIndex count) : removed_(count, false) {}

  /// A node that is not in the new list. What was put at it or next to it still takes its place there.
  void remove(NodeIndex node) { removed_[node] = true; }
  /// At the place of a node of the list. If that one stays, the new node comes before it, and before what was put
  /// directly before it.
  void put_at(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::at, node}); }
  /// Directly before or after a node, of the list or new.
  void put_before(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::before, node}); }
  void put_after(NodeIndex place, NodeIndex node) { places_.push_back({place, Side::after, node}); }

  /// The new list. Only once: it sorts the places.
  [[nodiscard]] std::vector<NodeIndex> apply(std::span<const NodeIndex> before);

 private:
  enum class Side : std::uint8_t { at, before, after };
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
  std::vector<std::uint32_t> begin_;  // per anchor, once the places are sorted: its first place
};

/// Moves producers up before nodes that would precede them: for every edge with a new node at one end (one that
/// `before` lacks), and for edges between two old nodes that were in order in `before`. Edges that were out of order
/// before stay so, because a model that was not sorted must not be sorted by a pass that replaced something elsewhere.
/// Nothing else moves. Names that nested bodies read count as inputs.
std::vector<NodeIndex> put_in_order(const GraphTable& table, std::span<const NodeIndex> before,
                                    std::span<const NodeIndex> placed);

/// Takes nodes out of a list that callbacks have changed and puts nodes of `before` back into it: each before the next
/// node of `before` that is in the list, or at the end if there is none. Only for lists that were changed: for others
/// the splice plan of the accepted occurrences is exact.
std::vector<NodeIndex> put_back(std::span<const NodeIndex> now, std::span<const NodeIndex> before,
                                const std::vector<bool>& goes, const std::vector<bool>& comes_back);

}  // namespace onnxgraft::core
