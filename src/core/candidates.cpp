// Candidates by two filters: each node by itself, then links against each other.
//
// Pruning is arc consistency over the links of the pattern. With "Conv:0,1i->2" and "Relu:2->3", a Conv goes if no Relu
// reads its output, and a Relu goes if no such Conv writes its input. A tensor survives on a link only if every place
// where the pattern touches the link has a candidate with that tensor. One link costs time in proportion to its
// candidates, and the number of sweeps has a limit, so the whole stays linear in the graph.
#include "core/candidates.h"

#include <algorithm>
#include <optional>

#include "core/local_match.h"

namespace onnxgraft::core {

namespace {

constexpr std::uint32_t output_slot = static_cast<std::uint32_t>(-1);
// A tree needs two sweeps, one in each direction. A pattern with loops may gain from more, but a limit keeps the cost
// linear: what pruning leaves over, the search sorts out.
constexpr int sweep_limit = 8;

/// A place where a pattern node touches a link.
struct Incidence {
  std::uint32_t role;
  std::uint32_t slot;
};

std::vector<Incidence> incidences(const Link& link) {
  std::vector<Incidence> result;
  if (link.writer != no_node) result.push_back({link.writer, output_slot});
  for (const LinkReader& reader : link.readers) result.push_back({reader.node, reader.slot});
  return result;
}

}  // namespace

Candidates::Candidates(const GraphTable& table, const Rule& rule)
    : table_(table), rule_(rule), by_role_(rule.nodes.size()) {
  judge_each_node();
  if (possible_) prune();
}

NameId Candidates::tensor(NodeIndex node, std::uint32_t slot) const {
  return slot == output_slot ? table_.outputs(node)[0] : table_.inputs(node)[slot];
}

/// One walk over the graph for all pattern nodes. Most nodes have an operator that the pattern lacks; for these the
/// table by operator is empty and nothing else is looked at.
void Candidates::judge_each_node() {
  std::vector<std::vector<std::uint32_t>> roles_of_op(table_.ops.size());
  for (std::uint32_t role = 0; role < rule_.nodes.size(); ++role) {
    const std::optional<NameId> op = table_.ops.find(rule_.nodes[role].op);
    if (!op) {
      possible_ = false;
      return;
    }
    roles_of_op[*op].push_back(role);
  }
  for (NodeIndex node = 0; node < table_.original_count(); ++node) {
    for (const std::uint32_t role : roles_of_op[table_.op(node)]) {
      if (match_locally(table_, rule_, rule_.nodes[role], node).reason == Reason::none) {
        by_role_[role].push_back(node);
      }
    }
  }
  possible_ = std::ranges::none_of(by_role_, [](const auto& nodes) { return nodes.empty(); });
}

void Candidates::prune() {
  support_.assign(table_.names.size(), 0);
  bool changed = true;
  for (int sweep = 0; changed && possible_ && sweep < sweep_limit; ++sweep) {
    changed = false;
    // Alternate directions: what one sweep learns at one end reaches the other end in the next.
    for (std::size_t step = 0; step < rule_.links.size() && possible_; ++step) {
      const std::size_t link = sweep % 2 == 0 ? step : rule_.links.size() - 1 - step;
      changed = prune_link(rule_.links[link]) || changed;
    }
  }
}

/// Drops candidates whose tensor on this link has no counterpart at another place of it; true if any went.
bool Candidates::prune_link(const Link& link) {
  const std::vector<Incidence> places = incidences(link);
  if (places.size() < 2) return false;
  std::uint32_t seen = 0;
  for (const Incidence& place : places) {
    for (const NodeIndex node : by_role_[place.role]) {
      std::uint32_t& support = support_[tensor(node, place.slot)];
      // Counts a tensor once per place, and only if all places before this one have it too.
      if (seen == 0 || support == support_base_ + seen) support = support_base_ + seen + 1;
    }
    ++seen;
  }
  const std::uint32_t full = support_base_ + seen;
  support_base_ = full;
  bool changed = false;
  for (const Incidence& place : places) {
    auto& nodes = by_role_[place.role];
    const auto removed =
        std::erase_if(nodes, [&](NodeIndex node) { return support_[tensor(node, place.slot)] != full; });
    changed = changed || removed != 0;
    possible_ = possible_ && !nodes.empty();
  }
  return changed;
}

bool Candidates::contains(std::uint32_t role, NodeIndex node) const {
  return std::ranges::binary_search(by_role_[role], node);
}

std::size_t Candidates::build_index(std::uint32_t role, std::uint32_t slot) {
  for (std::size_t index = 0; index < indexes_.size(); ++index) {
    if (indexes_[index].role == role && indexes_[index].slot == slot) return index;
  }
  const auto& nodes = by_role_[role];
  ReaderIndex index{role, slot, {}};
  index.readers.reserve(nodes.size());
  for (const NodeIndex node : nodes) index.readers.emplace_back(tensor(node, slot), node);
  // Names get their ids in list order, so most lists are sorted already and the check saves the sort.
  if (!std::ranges::is_sorted(index.readers)) std::ranges::sort(index.readers);
  indexes_.push_back(std::move(index));
  return indexes_.size() - 1;
}

Candidates::Range Candidates::readers(std::uint32_t role, std::uint32_t slot, NameId name) {
  const std::size_t number = build_index(role, slot);
  const auto& all = indexes_[number].readers;
  const auto found = std::ranges::equal_range(all, name, {}, &std::pair<NameId, NodeIndex>::first);
  return {by_role_.size() + number, static_cast<std::size_t>(found.begin() - all.begin()),
          static_cast<std::size_t>(found.end() - all.begin())};
}

}  // namespace onnxgraft::core
