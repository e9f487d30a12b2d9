// Names, rows and places of the new nodes of a round.
//
// New names are readable: they are built from the tensor or node that the new one comes from, and numbered only if that
// name is taken. Naming and placing follow the order of the occurrences and of the replacement's strings, so the
// result is the same in every process.
#include "core/splice_plan.h"

#include <string>

#include "core/interruption.h"
#include "core/node_order.h"

namespace onnxgraft::core {

SplicePlan::SplicePlan(GraphTable& table, const Rule& rule, OccurrenceList& occurrences)
    : table_(table), rule_(rule), occurrences_(occurrences), first_new_(table.node_count()) {
  FreshNames fresh(table.names);
  Interruptible work;
  // Name by name and occurrence by occurrence: an earlier one gets the lower number.
  entry_nodes_.reserve(occurrences.size() * rule.entries.size());
  for (std::size_t index = 0; index < occurrences.size(); ++index) {
    work.step();
    name_links(occurrences.nodes(index), occurrences.links(index), fresh);
    add_nodes(index, fresh);
  }
}

/// New tensors are named after what they come from: the tensor that the copied node wrote, or the first input of a new
/// node, plus the operator. New initializers are named after the input that they replace.
void SplicePlan::name_links(std::span<const NodeIndex> nodes, std::span<NameId> links, FreshNames& fresh) const {
  const auto text = [&](NameId name) { return std::string(table_.names.text(name)); };
  for (const ReplacementEntry& entry : rule_.entries) {
    if (entry.kind == EntryKind::keep || links[entry.output] != no_name) continue;
    std::string base;
    std::string op = entry.op;
    if (entry.kind == EntryKind::copy) {
      base = text(table_.outputs(nodes[entry.source])[0]);
      op = table_.ops.text(table_.op(nodes[entry.source]));
    } else if (!entry.inputs.empty()) {
      base = text(links[entry.inputs.front().link]);
    }
    if (!base.empty()) base += '_';
    base += op;
    links[entry.output] = fresh.make(base);
  }
  // Links that no entry writes are new initializers. They come second, since their names may build on those above.
  for (const ReplacementEntry& entry : rule_.entries) {
    for (std::size_t slot = 0; slot < entry.inputs.size(); ++slot) {
      const LinkId link = entry.inputs[slot].link;
      if (links[link] != no_name) continue;
      std::string base = text(links[entry.output]) + "_input_" + std::to_string(slot);
      if (entry.kind == EntryKind::copy) {
        const auto old_inputs = table_.inputs(nodes[entry.source]);
        if (slot < old_inputs.size() && old_inputs[slot] != no_name) base = text(old_inputs[slot]) + "_new";
      }
      links[link] = fresh.make(base);
    }
  }
}

/// What new nodes are named after. Many exporters leave nodes without names; then the output serves.
std::string SplicePlan::label(NodeIndex node) const {
  const NameId name = table_.node_names[node];
  if (name != no_name) return std::string(table_.names.text(name));
  return std::string(table_.names.text(table_.outputs(node)[0])) + "_node";
}

/// The name of a copy or of a new node. The first copy of a removed node keeps its name, and a copy of a kept node
/// takes the name of the removed node that it replaces, so that a rewrite of its own result changes no name.
/// All others get fresh names.
NameId SplicePlan::name_node(std::span<const NodeIndex> nodes, std::size_t number, FreshNames& fresh) const {
  const ReplacementEntry& entry = rule_.entries[number];
  if (entry.kind == EntryKind::create) {
    // Named after its neighbour: the node of the next "#" entry, or of the one before it.
    NodeIndex beside = nodes.back();
    for (const ReplacementEntry& other : rule_.entries) {
      if (other.kind == EntryKind::create) continue;
      beside = nodes[other.source];
      if (&other > &entry) break;
    }
    return fresh.make(label(beside) + "_" + entry.op);
  }
  if (!rule_.nodes[entry.source].kept) {
    for (std::size_t earlier = 0; earlier < number; ++earlier) {
      const ReplacementEntry& other = rule_.entries[earlier];
      if (other.kind == EntryKind::copy && other.source == entry.source) return fresh.make(label(nodes[entry.source]));
    }
    return table_.node_names[nodes[entry.source]];
  }
  const std::uint32_t writer = rule_.links[entry.output].writer;
  if (writer != no_node && rule_.nodes[writer].removed() && !rule_.nodes[writer].copied) {
    return table_.node_names[nodes[writer]];
  }
  return fresh.make(label(nodes[entry.source]));
}

/// Adds a row for each copy and each new node, so that order and later questions treat them like nodes of the graph.
void SplicePlan::add_nodes(std::size_t occurrence, FreshNames& fresh) {
  const auto nodes = occurrences_.nodes(occurrence);
  const auto links = occurrences_.links(occurrence);
  std::vector<NameId> inputs;
  for (std::size_t number = 0; number < rule_.entries.size(); ++number) {
    const ReplacementEntry& entry = rule_.entries[number];
    if (entry.kind == EntryKind::keep) {
      entry_nodes_.push_back(nodes[entry.source]);
      continue;
    }
    inputs.clear();
    for (const LinkUse& use : entry.inputs) inputs.push_back(links[use.link]);
    const bool copy = entry.kind == EntryKind::copy;
    // A copy carries the matched node's bodies along, and with them what these read.
    std::vector<NameId> implicit;
    if (copy) {
      const auto read = table_.implicit_inputs(nodes[entry.source]);
      implicit.assign(read.begin(), read.end());
    }
    const NameId op = copy ? table_.op(nodes[entry.source]) : table_.ops.intern(entry.op);
    const NameId name = name_node(nodes, number, fresh);
    entry_nodes_.push_back(table_.add_node(op, inputs, {&links[entry.output], 1}, implicit));
    table_.node_names.resize(table_.node_count(), no_name);
    table_.node_names.back() = name;
    copied_from_.push_back(copy ? nodes[entry.source] : no_index);
  }
}

/// A copy takes the place of the matched node. A new node is put before the next "#" entry of the replacement, or after
/// the last one, or where the last matched node was.
std::vector<NodeIndex> SplicePlan::arrange(std::span<const NodeIndex> before, const std::vector<bool>& chosen) const {
  // Only the chosen occurrences remove and place nodes. New nodes of the others have rows, but no place in the list.
  Placement placement(table_.node_count());
  for (std::size_t index = 0; index < occurrences_.size(); ++index) {
    if (!chosen[index]) continue;
    const auto nodes = occurrences_.nodes(index);
    for (std::size_t role = 0; role < nodes.size(); ++role) {
      if (rule_.nodes[role].removed()) placement.remove(nodes[role]);
    }
    std::vector<NodeIndex> waiting;  // new nodes that go before the next "#" entry
    NodeIndex last = no_index;
    for (std::size_t number = 0; number < rule_.entries.size(); ++number) {
      const ReplacementEntry& entry = rule_.entries[number];
      const NodeIndex node = entry_node(index, number);
      if (entry.kind == EntryKind::create) {
        waiting.push_back(node);
        continue;
      }
      if (entry.kind == EntryKind::copy) placement.put_at(nodes[entry.source], node);
      for (const NodeIndex new_node : waiting) placement.put_before(node, new_node);
      waiting.clear();
      last = node;
    }
    for (const NodeIndex new_node : waiting) {
      if (last == no_index) {
        placement.put_at(nodes.back(), new_node);
      } else {
        placement.put_after(last, new_node);
      }
    }
  }
  return put_in_order(table_, before, placement.apply(before));
}

}  // namespace onnxgraft::core
