#include "core/nearest_miss.h"

#include <algorithm>
#include <vector>

#include "core/cycle_check.h"

namespace onnxgraft::core {

namespace {

constexpr std::size_t step_limit = 200'000;  // attempts judged in all; the answer is best effort beyond

/// Pattern nodes in an order in which each touches one before it, part after part.
std::vector<std::uint32_t> connected_order(const Rule& rule) {
  std::vector<std::uint32_t> order;
  std::vector<bool> seen(rule.nodes.size(), false);
  const auto visit = [&](std::uint32_t role) {
    if (role == no_node || seen[role]) return;
    seen[role] = true;
    order.push_back(role);
  };
  for (std::uint32_t root = 0; root < rule.nodes.size(); ++root) {
    std::size_t at = order.size();
    visit(root);
    for (; at < order.size(); ++at) {
      const auto visit_link = [&](LinkId link) {
        visit(rule.links[link].writer);
        for (const LinkReader& reader : rule.links[link].readers) visit(reader.node);
      };
      const PatternNode& node = rule.nodes[order[at]];
      visit_link(node.output);
      for (const LinkUse& use : node.inputs) visit_link(use.link);
    }
  }
  return order;
}

class MissFinder {
 public:
  MissFinder(const GraphTable& table, const Rule& rule)
      : table_(table),
        rule_(rule),
        order_(connected_order(rule)),
        node_of_(rule.nodes.size(), no_index),
        name_of_(rule.links.size(), no_name),
        cycle_check_(table, rule) {}

  std::optional<NearestMiss> run() {
    for (std::uint32_t role = 0; role < rule_.nodes.size(); ++role) {
      if (graph_has(rule_.nodes[role].op)) continue;
      return NearestMiss{.role = role, .reason = Reason::missing_operator};
    }
    if (attempt(0)) return std::nullopt;
    return best_;
  }

 private:
  [[nodiscard]] bool graph_has(const std::string& op) const {
    const std::optional<NameId> id = table_.ops.find(op);
    if (!id) return false;
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      if (table_.op(node) == *id) return true;
    }
    return false;
  }

  /// Tries to match the pattern nodes from order_[depth] on; true if an assignment fits.
  bool attempt(std::size_t depth) {
    if (depth == order_.size()) {
      if (!cycle_check_.needed() || !cycle_check_.closes_cycle(node_of_, name_of_)) return true;
      note(depth, order_.back(), node_of_[order_.back()], {Reason::closes_cycle});
      return false;
    }
    const std::uint32_t role = order_[depth];
    bool tried = false;
    LocalResult none_found{Reason::wrong_operator};
    for (const NodeIndex node : candidates(role, none_found)) {
      if (++steps_ > step_limit) return false;
      if (none_found.reason == Reason::wrong_operator && table_.ops.text(table_.op(node)) != rule_.nodes[role].op) {
        continue;
      }
      tried = true;
      const LocalResult result = judge(role, node);
      if (result.reason != Reason::none) {
        note(depth, role, node, result);
        continue;
      }
      const auto names = name_of_;
      bind(role, node);
      const bool fits = attempt(depth + 1);
      node_of_[role] = no_index;
      name_of_ = names;
      if (fits) return true;
    }
    if (!tried) note(depth, role, no_index, none_found);
    return false;
  }

  /// Nodes to try for `role`: over a tensor bound already, else all. `none_found` says what it means if
  /// there is none.
  std::vector<NodeIndex> candidates(std::uint32_t role, LocalResult& none_found) const {
    const PatternNode& pattern = rule_.nodes[role];
    if (const NameId name = name_of_[pattern.output]; name != no_name) {
      none_found = {Reason::no_producer, 0, name};
      const NodeIndex producer = table_.producer(name);
      return producer == no_index ? std::vector<NodeIndex>{} : std::vector{producer};
    }
    for (std::uint32_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      const NameId name = name_of_[pattern.inputs[slot].link];
      if (name == no_name) continue;
      none_found = {Reason::no_reader, slot, name};
      const auto readers = table_.readers(name);
      return {readers.begin(), readers.end()};
    }
    std::vector<NodeIndex> all(table_.original_count());
    for (NodeIndex node = 0; node < all.size(); ++node) all[node] = node;
    return all;
  }

  [[nodiscard]] LocalResult judge(std::uint32_t role, NodeIndex node) const {
    const PatternNode& pattern = rule_.nodes[role];
    const LocalResult local = match_locally(table_, rule_, pattern, node);
    if (local.reason != Reason::none) return local;
    if (std::ranges::find(node_of_, node) != node_of_.end()) return {Reason::node_used_twice};
    const auto inputs = table_.inputs(node);
    for (std::uint32_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      const LinkId link = pattern.inputs[slot].link;
      const NameId bound = name_of_[link];
      if (bound != no_name && bound != inputs[slot]) {
        const bool elsewhere = std::ranges::find(inputs, bound) != inputs.end();
        return {elsewhere ? Reason::other_position : Reason::different_tensors, slot, bound};
      }
      if (shares_tensor(link, inputs[slot])) return {Reason::same_tensor, slot, inputs[slot]};
    }
    const NameId output = table_.outputs(node)[0];
    for (std::uint32_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      if (pattern.inputs[slot].link == pattern.output && inputs[slot] != output) {
        return {Reason::different_tensors, slot, output};
      }
    }
    const NameId bound = name_of_[pattern.output];
    if (bound != no_name && bound != output) return {Reason::different_tensors, 0, bound};
    if (shares_tensor(pattern.output, output)) return {Reason::same_tensor, 0, output};
    return {};
  }

  /// True if another id stands for the tensor already and a removed node writes it.
  [[nodiscard]] bool shares_tensor(LinkId link, NameId name) const {
    const auto written_by_removed = [&](LinkId id) {
      const std::uint32_t writer = rule_.links[id].writer;
      return writer != no_node && rule_.nodes[writer].removed();
    };
    for (LinkId other = 0; other < name_of_.size(); ++other) {
      if (other == link || name_of_[other] != name) continue;
      if (written_by_removed(link) || written_by_removed(other)) return true;
    }
    return false;
  }

  void bind(std::uint32_t role, NodeIndex node) {
    const PatternNode& pattern = rule_.nodes[role];
    node_of_[role] = node;
    for (std::size_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      name_of_[pattern.inputs[slot].link] = table_.inputs(node)[slot];
    }
    name_of_[pattern.output] = table_.outputs(node)[0];
  }

  void note(std::size_t matched, std::uint32_t role, NodeIndex candidate, const LocalResult& result) {
    if (matched < best_.matched || (matched == best_.matched && noted_ && best_.candidate != no_index)) return;
    if (matched == best_.matched && noted_ && candidate == no_index) return;
    noted_ = true;
    best_ = {static_cast<std::uint32_t>(matched),
             no_index,
             role,
             candidate,
             result.reason,
             result.slot,
             result.tensor,
             no_index};
    if (matched > 0) best_.last = node_of_[order_[matched - 1]];
    if (result.reason == Reason::read_elsewhere) best_.reader = outside_reader(role, result.tensor);
  }

  /// A reader of the tensor that has no place in the pattern by its operator, else its last reader.
  [[nodiscard]] NodeIndex outside_reader(std::uint32_t role, NameId tensor) const {
    const Link& link = rule_.links[rule_.nodes[role].output];
    for (const NodeIndex reader : table_.readers(tensor)) {
      const bool wanted = std::ranges::any_of(link.readers, [&](const LinkReader& place) {
        return table_.ops.text(table_.op(reader)) == rule_.nodes[place.node].op;
      });
      if (!wanted) return reader;
    }
    return table_.readers(tensor).back();
  }

  const GraphTable& table_;
  const Rule& rule_;
  std::vector<std::uint32_t> order_;
  std::vector<NodeIndex> node_of_;
  std::vector<NameId> name_of_;
  CycleCheck cycle_check_;
  NearestMiss best_;
  bool noted_ = false;
  std::size_t steps_ = 0;
};

}  // namespace

std::optional<NearestMiss> find_nearest_miss(const GraphTable& table, const Rule& rule) {
  return MissFinder(table, rule).run();
}

}  // namespace onnxgraft::core
