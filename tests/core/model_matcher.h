// The rules of matching once more, as plainly as possible: every assignment of graph nodes to pattern nodes is
// tried and judged as a whole. Slow and obvious; the search has to agree with it. Uses of a compiled rule only
// its lists (nodes, entries, links as names), none of its conclusions.
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

  /// All assignments that fit by themselves, in order.
  [[nodiscard]] const std::vector<Assignment>& all() const { return all_; }

  /// Those that a round takes. `uses` holds what earlier rounds did to nodes and learns what this one does.
  std::vector<Assignment> choose(std::map<NodeIndex, bool>& kept_nodes, const std::vector<Assignment>& refused) const {
    std::vector<Assignment> chosen;
    for (const Assignment& nodes : all_) {
      bool fits = std::ranges::none_of(refused, [&](const auto& other) { return same_main_part(nodes, other); });
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

  [[nodiscard]] bool kept(std::size_t role) const {
    return std::ranges::any_of(
        rule_.entries, [&](const auto& entry) { return entry.kind == EntryKind::keep && entry.source == role; });
  }

 private:
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
    const auto inputs = table_.inputs(node);
    if (table_.ops.text(table_.op(node)) != role.op || table_.outputs(node).size() != 1) return false;
    if (first_writer(table_.outputs(node)[0]) != node) return false;
    if (inputs.size() < role.inputs.size() || (inputs.size() > role.inputs.size() && !role.rest)) return false;
    for (std::size_t slot = 0; slot < inputs.size(); ++slot) {
      const bool is_initializer = table_.is_initializer(inputs[slot]);
      const bool is_omitted = inputs[slot] == no_name;
      if (slot >= role.inputs.size() ? !is_initializer && !is_omitted
                                     : is_omitted || (role.inputs[slot].initializer && !is_initializer)) {
        return false;
      }
    }
    return true;
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
      const auto reads = [&](std::span<const NameId> list) { return std::ranges::find(list, name) != list.end(); };
      const bool outside = std::ranges::find(nodes, node) == nodes.end();
      if (reads(table_.implicit_inputs(node)) || (outside && reads(table_.inputs(node)))) return true;
    }
    return false;
  }

  [[nodiscard]] NodeIndex first_writer(NameId name) const {
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      const auto outputs = table_.outputs(node);
      if (std::ranges::find(outputs, name) != outputs.end()) return node;
    }
    return no_index;
  }

  /// Carries the replacement out on sets of tensors and looks for a cycle; the graph itself has none.
  [[nodiscard]] bool closes_cycle(const Assignment& nodes, const std::map<LinkId, NameId>& names) const {
    std::map<NameId, std::set<NameId>> needs;
    for (NodeIndex node = 0; node < table_.original_count(); ++node) {
      const auto role = static_cast<std::size_t>(std::ranges::find(nodes, node) - nodes.begin());
      if (role < nodes.size() && !kept(role)) continue;
      for (const NameId output : table_.outputs(node)) {
        if (first_writer(output) == node) add_needs(needs[output], node, table_.inputs(node));
      }
    }
    const auto tensor = [&](LinkId link) {
      const auto old = names.find(link);
      return old != names.end() ? old->second : static_cast<NameId>(table_.names.size() + link);
    };
    for (const ReplacementEntry& entry : rule_.entries) {
      if (entry.kind == EntryKind::keep) continue;
      std::vector<NameId> inputs;
      for (const LinkUse& use : entry.inputs) inputs.push_back(tensor(use.link));
      add_needs(needs[tensor(entry.output)], entry.kind == EntryKind::copy ? nodes[entry.source] : no_index, inputs);
    }
    bool changed = true;
    while (changed) {  // tensors go that need no tensor of those left
      changed = std::erase_if(needs, [&](const auto& item) {
                  return std::ranges::none_of(item.second, [&](NameId name) { return needs.contains(name); });
                }) != 0;
    }
    return !needs.empty();
  }

  void add_needs(std::set<NameId>& needs, NodeIndex bodies_of, std::span<const NameId> inputs) const {
    needs.insert(inputs.begin(), inputs.end());
    if (bodies_of == no_index) return;
    const auto read = table_.implicit_inputs(bodies_of);
    needs.insert(read.begin(), read.end());
  }

  /// True if two assignments agree on every pattern node that hangs together with node 0.
  [[nodiscard]] bool same_main_part(const Assignment& one, const Assignment& other) const {
    std::set<LinkId> links;
    std::set<std::size_t> roles{0};
    for (std::size_t size = 0; size != roles.size();) {
      size = roles.size();
      for (std::size_t role = 0; role < rule_.nodes.size(); ++role) {
        const PatternNode& node = rule_.nodes[role];
        const auto touches = [&](const LinkUse& use) { return links.contains(use.link); };
        if (roles.contains(role) || links.contains(node.output) || std::ranges::any_of(node.inputs, touches)) {
          roles.insert(role);
          links.insert(node.output);
          for (const LinkUse& use : node.inputs) links.insert(use.link);
        }
      }
    }
    return std::ranges::all_of(roles, [&](std::size_t role) { return one[role] == other[role]; });
  }

  const GraphTable& table_;
  const Rule& rule_;
  std::vector<Assignment> all_;
};

}  // namespace onnxgraft::core
