// Candidates for a pattern node that touches no bound tensor, or one that very many nodes read.
//
// They are reached over pattern nodes in between, never by trying all nodes of the operator. In "LeakyRelu:1->2",
// "LeakyRelu:3->4", "Concat:2,4->5" the second LeakyRelu is found over the Concats that read the first. The result is a
// superset of what the search accepts: it judges each of these nodes again. Without bridges, n such pairs would take
// n * n attempts.
#include <algorithm>
#include <utility>

#include "core/search.h"

namespace onnxgraft::core {

/// The smallest list of candidates of `role` over one of its bound inputs; `found` is false if none is bound. Writers
/// are not looked at, because propagation has bound them already.
Candidates::Range Search::best_direct(std::uint32_t role, bool& found) {
  Candidates::Range best;
  found = false;
  const auto& inputs = rule_.nodes[role].inputs;
  for (std::uint32_t slot = 0; slot < inputs.size(); ++slot) {
    const NameId name = name_of_[inputs[slot].link];
    if (name == no_name) continue;
    const Candidates::Range range = candidates_.readers(role, slot, name);
    if (!found || range.size() < best.size()) best = range;
    found = true;
  }
  return best;
}

/// Tries ways from the open pattern nodes with bound tensors, those with the fewest candidates first. False if every
/// way exceeds `budget` candidates; then there is a direct list of that size. Called for each choice with more than a
/// few candidates.
bool Search::bridge(std::uint32_t role, std::size_t budget, std::vector<NodeIndex>& result) {
  std::vector<std::pair<std::uint32_t, Candidates::Range>> starts;
  for (std::uint32_t start = 0; start < node_of_.size(); ++start) {
    if (start == role || node_of_[start] != no_index) continue;
    bool direct = false;
    const Candidates::Range range = best_direct(start, direct);
    if (direct && range.size() < budget) starts.emplace_back(start, range);
  }
  std::ranges::stable_sort(starts, {}, [](const auto& start) { return start.second.size(); });
  return std::ranges::any_of(
      starts, [&](const auto& start) { return expand(start.first, start.second, role, budget, result); });
}

namespace {

/// One step of a way through the pattern: from a node over a link to the next node.
struct Step {
  std::uint32_t from;
  LinkId link;
  std::uint32_t to;
};

/// Shortest way over open nodes and open links; empty if there is none. A breadth-first walk over the pattern, which
/// has a dozen nodes. Bound links are not crossed: over these the nodes are reached directly, and the lists are already
/// known.
std::vector<Step> find_way(const Rule& rule, std::uint32_t start, std::uint32_t target,
                           const std::vector<NodeIndex>& node_of, const std::vector<NameId>& name_of) {
  std::vector<Step> reached_by(rule.nodes.size(), Step{no_node, 0, no_node});
  std::vector<std::uint32_t> open{start};
  reached_by[start].to = start;
  const auto visit = [&](std::uint32_t from, LinkId link, std::uint32_t to) {
    if (node_of[to] != no_index || reached_by[to].to != no_node) return;
    reached_by[to] = {from, link, to};
    open.push_back(to);
  };
  for (std::size_t at = 0; at < open.size() && reached_by[target].to == no_node; ++at) {
    const std::uint32_t from = open[at];
    const auto visit_link = [&](LinkId id) {
      if (name_of[id] != no_name) return;
      const Link& link = rule.links[id];
      if (link.writer != no_node) visit(from, id, link.writer);
      for (const LinkReader& reader : link.readers) visit(from, id, reader.node);
    };
    for (const LinkUse& use : rule.nodes[from].inputs) visit_link(use.link);
    visit_link(rule.nodes[from].output);
  }
  std::vector<Step> way;
  if (reached_by[target].to == no_node) return way;
  for (std::uint32_t at = target; at != start; at = reached_by[at].from) way.push_back(reached_by[at]);
  std::ranges::reverse(way);
  return way;
}

/// The tensor that a graph node in this role has on the link.
NameId tensor_of_link(const GraphTable& table, const PatternNode& role, NodeIndex node, LinkId link) {
  if (role.output == link) return table.outputs(node)[0];
  const auto slot = std::ranges::find(role.inputs, link, &LinkUse::link) - role.inputs.begin();
  return table.inputs(node)[static_cast<std::size_t>(slot)];
}

}  // namespace

/// Goes the way from the candidates in `range`, step by step, and keeps the nodes that each step reaches. False if
/// there is no way or a step exceeds `budget`: the work is bounded by what the direct list would cost.
bool Search::expand(std::uint32_t start, Candidates::Range range, std::uint32_t target, std::size_t budget,
                    std::vector<NodeIndex>& result) {
  const std::vector<Step> way = find_way(rule_, start, target, node_of_, name_of_);
  if (way.empty()) return false;
  std::vector<NodeIndex> nodes;
  for (std::size_t at = range.begin; at < range.end; ++at) nodes.push_back(candidates_.at(range.list, at));
  for (const Step& step : way) {
    std::vector<NodeIndex> next;
    const Link& link = rule_.links[step.link];
    for (const NodeIndex node : nodes) {
      work_.step();
      // A claimed node leads nowhere: the search would have to bind it.
      if (!claims_.usable(node, rule_.nodes[step.from])) continue;
      const NameId name = tensor_of_link(table_, rule_.nodes[step.from], node, step.link);
      if (link.writer == step.to) {
        const NodeIndex producer = table_.producer(name);
        if (producer != no_index && candidates_.contains(step.to, producer)) next.push_back(producer);
      } else {
        const auto reader = std::ranges::find(link.readers, step.to, &LinkReader::node);
        const Candidates::Range readers = candidates_.readers(step.to, reader->slot, name);
        for (std::size_t at = readers.begin; at < readers.end; ++at) {
          next.push_back(candidates_.at(readers.list, at));
        }
      }
      if (next.size() > budget) return false;
    }
    // In node order, as the search must visit them, and each once: two nodes may lead to the same one.
    std::ranges::sort(next);
    next.erase(std::ranges::unique(next).begin(), next.end());
    nodes = std::move(next);
  }
  result = std::move(nodes);
  return true;
}

}  // namespace onnxgraft::core
