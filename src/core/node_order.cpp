// Places, repair of the order, and putting back.
//
// The repair is a depth-first walk from node to late producers, in list order, with its own stack. Each node is opened
// and written once, so it costs as much as there are nodes and links. A cycle, which only an invalid input can have,
// is left as it is: every node is still written exactly once.
#include "core/node_order.h"

#include <algorithm>
#include <utility>

namespace onnxgraft::core {

void Placement::write(NodeIndex node, std::vector<NodeIndex>& list) const {
  const auto write_all = [&](Side side) {
    for (const Place& place : places(node)) {
      if (place.side == side) list.push_back(place.node);
    }
  };
  write_all(Side::before);
  if (!removed_[node]) list.push_back(node);
  write_all(Side::after);
}

/// By anchor, those of one anchor in the order in which they were put there. A counting sort, because trees
/// and binary searches over all places grew faster than the graph.
void Placement::sort_places() {
  begin_.assign(removed_.size() + 1, 0);
  for (const Place& place : places_) ++begin_[place.anchor + 1];
  for (std::size_t anchor = 0; anchor < removed_.size(); ++anchor) begin_[anchor + 1] += begin_[anchor];
  std::vector<Place> sorted(places_.size());
  std::vector<std::uint32_t> next(begin_.begin(), begin_.end() - 1);
  for (const Place& place : places_) sorted[next[place.anchor]++] = place;
  places_ = std::move(sorted);
}

std::vector<NodeIndex> Placement::apply(std::span<const NodeIndex> before) {
  sort_places();
  std::vector<NodeIndex> list;
  list.reserve(before.size() + places_.size());
  for (const NodeIndex node : before) {
    for (const Place& place : places(node)) {
      if (place.side == Side::at) write(place.node, list);
    }
    write(node, list);
  }
  return list;
}

namespace {

/// Writes the nodes in list order, each after those of its producers that must come first.
class OrderRepair {
 public:
  OrderRepair(const GraphTable& table, std::span<const NodeIndex> before, std::span<const NodeIndex> placed)
      : table_(table),
        placed_(placed),
        old_position_(table.node_count(), absent),
        position_(table.node_count(), absent),
        state_(table.node_count(), State::waiting) {
    for (std::uint32_t at = 0; at < before.size(); ++at) old_position_[before[at]] = at;
    for (std::uint32_t at = 0; at < placed.size(); ++at) position_[placed[at]] = at;
    // Not the table's producers: those are of the original nodes, and new nodes write here too.
    writers_.assign(table.names.size(), no_index);
    for (const NodeIndex node : placed) {
      for (const NameId name : table.outputs(node)) {
        if (writers_[name] == no_index) writers_[name] = node;
      }
    }
  }

  std::vector<NodeIndex> run() {
    result_.reserve(placed_.size());
    for (const NodeIndex node : placed_) write(node);
    return std::move(result_);
  }

 private:
  enum class State : std::uint8_t { waiting, open, written };
  /// A node on the stack, with the producers to write before it.
  struct Open {
    NodeIndex node;
    std::vector<NodeIndex> producers;
    std::size_t next = 0;
  };

  void write(NodeIndex start) {
    if (state_[start] != State::waiting) return;
    open(start);
    while (!stack_.empty()) {
      Open& top = stack_.back();
      if (top.next < top.producers.size()) {
        const NodeIndex producer = top.producers[top.next++];
        // An open producer closes a cycle: the input had one, and no order is right.
        if (state_[producer] == State::waiting) open(producer);
        continue;
      }
      state_[top.node] = State::written;
      result_.push_back(top.node);
      stack_.pop_back();
    }
  }

  void open(NodeIndex node) {
    state_[node] = State::open;
    stack_.push_back({node, late_producers(node)});
  }

  /// Producers not written yet whose edge to `node` counts, in list order.
  [[nodiscard]] std::vector<NodeIndex> late_producers(NodeIndex node) const {
    std::vector<NodeIndex> late;
    for (const auto names : {table_.inputs(node), table_.implicit_inputs(node)}) {
      for (const NameId name : names) {
        if (name == no_name || writers_[name] == no_index) continue;
        const NodeIndex producer = writers_[name];
        if (state_[producer] == State::waiting && counts(producer, node)) late.push_back(producer);
      }
    }
    std::ranges::sort(late, {}, [&](NodeIndex producer) { return position_[producer]; });
    late.erase(std::ranges::unique(late).begin(), late.end());
    return late;
  }

  /// Whether the edge must be in order: one with a new node, or one that was in order before.
  [[nodiscard]] bool counts(NodeIndex producer, NodeIndex reader) const {
    if (producer == reader) return false;
    const std::uint32_t from = old_position_[producer];
    const std::uint32_t to = old_position_[reader];
    return from == absent || to == absent || from < to;
  }

  static constexpr std::uint32_t absent = static_cast<std::uint32_t>(-1);
  const GraphTable& table_;
  std::span<const NodeIndex> placed_;
  std::vector<std::uint32_t> old_position_;
  std::vector<std::uint32_t> position_;
  std::vector<State> state_;
  std::vector<NodeIndex> writers_;
  std::vector<NodeIndex> result_;
  std::vector<Open> stack_;
};

}  // namespace

std::vector<NodeIndex> put_in_order(const GraphTable& table, std::span<const NodeIndex> before,
                                    std::span<const NodeIndex> placed) {
  return OrderRepair(table, before, placed).run();
}

std::vector<NodeIndex> put_back(std::span<const NodeIndex> now, std::span<const NodeIndex> before,
                                const std::vector<bool>& goes, const std::vector<bool>& comes_back) {
  std::vector<bool> present(goes.size(), false);
  for (const NodeIndex node : now) present[node] = !goes[node];
  // For each node, the one that comes back directly before it; several in a row form a chain.
  std::vector<NodeIndex> preceding(goes.size(), no_index);
  NodeIndex at_end = no_index;
  NodeIndex next = no_index;
  // From the end, so that the next old node that will be in the list is always known.
  for (std::size_t at = before.size(); at-- > 0;) {
    const NodeIndex node = before[at];
    if (!present[node] && !comes_back[node]) continue;
    if (!present[node]) (next == no_index ? at_end : preceding[next]) = node;
    next = node;
  }
  std::vector<NodeIndex> list;
  std::vector<NodeIndex> chain;
  const auto write = [&](NodeIndex last) {
    chain.clear();
    for (NodeIndex node = last; node != no_index; node = preceding[node]) chain.push_back(node);
    list.insert(list.end(), chain.rbegin(), chain.rend());
  };
  for (const NodeIndex node : now) {
    if (present[node]) write(node);
  }
  write(at_end);
  return list;
}

}  // namespace onnxgraft::core
