// The walk that explains: backtracking over the pattern nodes in an order in which each touches one before it.
//
// Unlike the search it tries nodes that cannot match, since those are what a user asks about: all nodes of the operator
// for the first pattern node, then all readers or the writer of a bound tensor. The recursion is as deep as the
// pattern, not as the graph. Every rejected node is noted, and the note with the most pattern nodes matched is the
// answer.
#include "core/nearest_miss.h"

#include <algorithm>
#include <span>
#include <vector>

#include "core/candidates.h"
#include "core/cycle_check.h"
#include "core/occurrence.h"
#include "core/refused_set.h"
#include "core/search.h"

namespace onnxgraft::core {

namespace {

// Nodes judged in all. When they are used up, the answer is the best note so far.
constexpr std::size_t step_limit = 200'000;
// The same for a walk from one node. `explain` may start one for every node of the graph.
constexpr std::size_t node_step_limit = 500;

/// Pattern nodes in an order in which each touches one before it, so that its candidates come from a bound tensor. Part
/// after part, the part of `first` first.
std::vector<std::uint32_t> connected_order(const Rule& rule, std::uint32_t first) {
  std::vector<std::uint32_t> order;
  std::vector<bool> seen(rule.nodes.size(), false);
  const auto visit = [&](std::uint32_t role) {
    if (role == no_node || seen[role]) return;
    seen[role] = true;
    order.push_back(role);
  };
  const auto visit_link = [&](LinkId link) {
    visit(rule.links[link].writer);
    for (const LinkReader& reader : rule.links[link].readers) visit(reader.node);
  };
  const auto visit_part = [&](std::uint32_t root) {
    std::size_t at = order.size();
    visit(root);
    for (; at < order.size(); ++at) {
      const PatternNode& node = rule.nodes[order[at]];
      visit_link(node.output);
      for (const LinkUse& use : node.inputs) visit_link(use.link);
    }
  };
  visit_part(first);
  for (std::uint32_t root = 0; root < rule.nodes.size(); ++root) visit_part(root);
  return order;
}

class MissFinder {
 public:
  MissFinder(const GraphTable& table, const Rule& rule)
      : table_(table),
        rule_(rule),
        node_of_(rule.nodes.size(), no_index),
        name_of_(rule.links.size(), no_name),
        cycle_check_(table, rule) {}

  /// The answer for the whole pattern. An operator that the graph lacks is named first: no attempt can get past it.
  std::optional<NearestMiss> run() {
    for (std::uint32_t role = 0; role < rule_.nodes.size(); ++role) {
      if (graph_has(rule_.nodes[role].op)) continue;
      return NearestMiss{.role = role, .reason = Reason::missing_operator};
    }
    order_ = connected_order(rule_, 0);
    if (attempt(0)) return std::nullopt;
    return best_;
  }

  /// The same from one node on. Only for a node that no assignment has in that role: with one, the note would be wrong.
  NearestMiss run_from(std::uint32_t role, NodeIndex node) {
    order_ = connected_order(rule_, role);
    best_ = {};
    noted_ = false;
    steps_ = step_limit - node_step_limit;
    start_ = node;
    attempt(0);
    if (best_.reason == Reason::wrong_operator && best_.candidate == no_index) best_.reason = Reason::missing_operator;
    return best_;
  }

 private:
  [[nodiscard]] bool graph_has(const std::string& op) { return !nodes_of(op).empty(); }

  /// All nodes of an operator. The index is built at the first question, since a walk from one node may never ask.
  std::span<const NodeIndex> nodes_of(const std::string& op) {
    if (by_op_.empty()) {
      by_op_.resize(table_.ops.size());
      for (NodeIndex node = 0; node < table_.original_count(); ++node) by_op_[table_.op(node)].push_back(node);
    }
    const std::optional<NameId> id = table_.ops.find(op);
    return id && *id < by_op_.size() ? std::span<const NodeIndex>(by_op_[*id]) : std::span<const NodeIndex>();
  }

  /// Tries to match the pattern nodes from order_[depth] on; true as soon as all are matched.
  bool attempt(std::size_t depth) {
    if (depth == order_.size()) {
      if (!cycle_check_.needed() || !cycle_check_.closes_cycle(node_of_, name_of_)) return true;
      note(depth, order_.back(), node_of_[order_.back()], {Reason::closes_cycle});
      return false;
    }
    const std::uint32_t role = order_[depth];
    bool tried = false;
    LocalResult none_found{Reason::wrong_operator};
    NodeIndex single = no_index;
    for (const NodeIndex node : candidates(depth, single, none_found)) {
      if (++steps_ > step_limit) return false;
      tried = true;
      const LocalResult result = judge(role, node);
      if (result.reason != Reason::none) {
        note(depth, role, node, result);
        continue;
      }
      // A copy of a dozen names is simpler than undoing, and this walk is not a fast path.
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

  /// Nodes to try for the pattern node at `depth`: the start, or those on a tensor that is bound, or all of the
  /// operator. `none_found` becomes what it means if there is none. A lone node is put into `single`, which the result
  /// points to.
  std::span<const NodeIndex> candidates(std::size_t depth, NodeIndex& single, LocalResult& none_found) {
    const PatternNode& pattern = rule_.nodes[order_[depth]];
    if (depth == 0 && start_ != no_index) {
      single = start_;
      return {&single, 1};
    }
    if (const NameId name = name_of_[pattern.output]; name != no_name) {
      none_found = {Reason::no_producer, 0, name};
      single = table_.producer(name);
      return {&single, single == no_index ? 0U : 1U};
    }
    for (std::uint32_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      const NameId name = name_of_[pattern.inputs[slot].link];
      if (name == no_name) continue;
      none_found = {Reason::no_reader, slot, name};
      return table_.readers(name);
    }
    return nodes_of(pattern.op);
  }

  /// The conditions of the search, one by one: those on the node alone, then those on what is bound.
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

  /// True if another id is bound to the tensor already and a removed node writes it. The other id would dangle.
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

  /// `judge` has found no clash, so the names can be set without a check.
  void bind(std::uint32_t role, NodeIndex node) {
    const PatternNode& pattern = rule_.nodes[role];
    node_of_[role] = node;
    for (std::size_t slot = 0; slot < pattern.inputs.size(); ++slot) {
      name_of_[pattern.inputs[slot].link] = table_.inputs(node)[slot];
    }
    name_of_[pattern.output] = table_.outputs(node)[0];
  }

  /// Keeps the note that matched the most pattern nodes. Among equals the first with a node to name wins, since "this
  /// node is not a Conv" helps more than "no node reads it".
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

  /// The reader to name in "is also read by": one whose operator has no place in the pattern, or else the last one.
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
  std::vector<std::vector<NodeIndex>> by_op_;
  NodeIndex start_ = no_index;  // the only candidate of the first pattern node, if there is one
  NearestMiss best_;
  bool noted_ = false;
  std::size_t steps_ = 0;
};

}  // namespace

std::optional<NearestMiss> find_nearest_miss(const GraphTable& table, const Rule& rule) {
  return MissFinder(table, rule).run();
}

/// A search with claims and refusals that stay empty, next to a walk over the same graph.
struct NodeTrace::Parts {
  Parts(const GraphTable& table, const Rule& rule)
      : finder(table, rule),
        candidates(table, rule),
        claims(table.original_count()),
        search(table, rule, candidates, claims, refused) {}

  MissFinder finder;
  Candidates candidates;
  Claims claims;
  RefusedSet refused;
  Search search;
};

NodeTrace::NodeTrace(const GraphTable& table, const Rule& rule) : parts_(std::make_unique<Parts>(table, rule)) {}
NodeTrace::~NodeTrace() = default;

std::vector<NodeIndex> NodeTrace::assignment(std::uint32_t role, NodeIndex node) {
  return parts_->search.first_with(role, node);
}

NearestMiss NodeTrace::miss(std::uint32_t role, NodeIndex node) { return parts_->finder.run_from(role, node); }

}  // namespace onnxgraft::core
