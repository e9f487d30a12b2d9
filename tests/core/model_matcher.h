// The rules of matching once more, as plainly as possible: every assignment of graph nodes to pattern nodes is
// tried and judged as a whole. Slow and obvious; the search has to agree with it. Uses of a compiled rule only
// its lists (nodes, entries, links as names), none of its conclusions. For graphs without initializers, bodies and
// second writers.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "graph_text.h"

namespace onnxgraft::core {

class ModelMatcher {
 public:
  ModelMatcher(const GraphTable& table, const Rule& rule) : table_(table), rule_(rule) {
    Assignment nodes;
    extend(nodes);
  }

  /// Of all assignments that fit by themselves those that are taken, first come first served.
  [[nodiscard]] std::vector<Assignment> choose() const {
    std::vector<Assignment> chosen;
    std::map<NodeIndex, bool> kept_nodes;
    for (const Assignment& nodes : all_) {
      bool fits = true;
      for (std::size_t role = 0; role < nodes.size(); ++role) {
        const auto use = kept_nodes.find(nodes[role]);
        fits = fits && (use == kept_nodes.end() || (use->second && kept(role)));
      }
      if (!fits) continue;
      chosen.push_back(nodes);
      for (std::size_t role = 0; role < nodes.size(); ++role) kept_nodes[nodes[role]] = kept(role);
    }
    return chosen;
  }

 private:
  [[nodiscard]] bool kept(std::size_t role) const {
    return std::ranges::any_of(
        rule_.entries, [&](const auto& entry) { return entry.kind == EntryKind::keep && entry.source == role; });
  }

  void extend(Assignment& nodes) {
    if (nodes.size() == rule_.nodes.size()) {
      if (fits_as_a_whole(nodes)) all_.push_back(nodes);
      return;
    }
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      if (!fits_alone(rule_.nodes[nodes.size()], node) || std::ranges::find(nodes, node) != nodes.end()) continue;
      nodes.push_back(node);
      extend(nodes);
      nodes.pop_back();
    }
  }

  [[nodiscard]] bool fits_alone(const PatternNode& role, NodeIndex node) const {
    return table_.ops.text(table_.op(node)) == role.op && table_.inputs(node).size() == role.inputs.size();
  }

  [[nodiscard]] bool fits_as_a_whole(const Assignment& nodes) const {
    std::map<LinkId, NameId> names;
    const auto bind = [&](LinkId link, NameId name) { return names.try_emplace(link, name).first->second == name; };
    for (std::size_t role = 0; role < nodes.size(); ++role) {
      const PatternNode& pattern = rule_.nodes[role];
      for (std::size_t slot = 0; slot < pattern.inputs.size(); ++slot) {
        if (!bind(pattern.inputs[slot].link, table_.inputs(nodes[role])[slot])) return false;
      }
      if (!bind(pattern.output, table_.outputs(nodes[role])[0])) return false;
    }
    for (std::size_t role = 0; role < nodes.size(); ++role) {
      if (kept(role)) continue;
      const LinkId output = rule_.nodes[role].output;
      const NameId name = names[output];
      for (const auto& [link, other] : names) {
        if (link != output && other == name) return false;
      }
      if (must_not_be_used_outside(output) && used_outside(name, nodes)) return false;
    }
    return !closes_cycle(nodes, names);
  }

  /// Of the output of a removed node: it vanishes, or is an inner tensor that is written anew.
  [[nodiscard]] bool must_not_be_used_outside(LinkId output) const {
    const bool written = std::ranges::any_of(rule_.entries, [&](const auto& entry) { return entry.output == output; });
    const bool inner = std::ranges::any_of(rule_.nodes, [&](const PatternNode& node) {
      return std::ranges::find(node.inputs, output, &LinkUse::link) != node.inputs.end();
    });
    return !written || inner;
  }

  [[nodiscard]] bool used_outside(NameId name, const Assignment& nodes) const {
    if (table_.is_graph_output(name)) return true;
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      const bool outside = std::ranges::find(nodes, node) == nodes.end();
      const auto inputs = table_.inputs(node);
      if (outside && std::ranges::find(inputs, name) != inputs.end()) return true;
    }
    return false;
  }

  /// Carries the replacement out on sets of tensors and looks for a cycle; the graph itself has none.
  [[nodiscard]] bool closes_cycle(const Assignment& nodes, const std::map<LinkId, NameId>& names) const {
    std::map<NameId, std::set<NameId>> needs;
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      const auto role = static_cast<std::size_t>(std::ranges::find(nodes, node) - nodes.begin());
      if (role < nodes.size() && !kept(role)) continue;
      const auto inputs = table_.inputs(node);
      needs[table_.outputs(node)[0]].insert(inputs.begin(), inputs.end());
    }
    const auto tensor = [&](LinkId link) {
      const auto old = names.find(link);
      return old != names.end() ? old->second : static_cast<NameId>(table_.names.size() + link);
    };
    for (const ReplacementEntry& entry : rule_.entries) {
      if (entry.kind == EntryKind::keep) continue;
      auto& needed = needs[tensor(entry.output)];
      for (const LinkUse& use : entry.inputs) needed.insert(tensor(use.link));
    }
    bool changed = true;
    while (changed) {  // tensors go that need no tensor of those left
      changed = std::erase_if(needs, [&](const auto& item) {
                  return std::ranges::none_of(item.second, [&](NameId name) { return needs.contains(name); });
                }) != 0;
    }
    return !needs.empty();
  }

  const GraphTable& table_;
  const Rule& rule_;
  std::vector<Assignment> all_;
};

}  // namespace onnxgraft::core
