// Filling and sealing the table.
//
// Readers are kept in one array for all tensors, ordered by tensor and then by node, instead of a vector per tensor.
// Two walks make it: one counts, one fills. A node that reads a tensor at several inputs is one reader; that is what
// uses outside an occurrence are counted by.
#include "core/graph_table.h"

#include <numeric>
#include <stdexcept>

namespace onnxgraft::core {

namespace {

/// In ONNX trailing empty names have no meaning, so the number of inputs must not depend on them.
std::span<const NameId> without_trailing_empty(std::span<const NameId> names) {
  while (!names.empty() && names.back() == no_name) names = names.first(names.size() - 1);
  return names;
}

}  // namespace

NodeIndex GraphTable::add_node(NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                               std::span<const NameId> implicit_inputs) {
  add_empty_nodes(1);
  const NodeIndex node = node_count() - 1;
  set_node(node, op, inputs, outputs, implicit_inputs);
  return node;
}

void GraphTable::reserve(std::size_t node_count) {
  const std::size_t with_new = node_count + (node_count / 2);
  nodes_.reserve(with_new);
  node_names.reserve(with_new);
  links_.reserve(with_new * 4);
  names.reserve(node_count * 2);  // each node's own and its output's
}

void GraphTable::add_empty_nodes(std::size_t count) { nodes_.resize(nodes_.size() + count); }

void GraphTable::set_node(NodeIndex node, NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                          std::span<const NameId> implicit_inputs) {
  Node row{op, {}};
  std::size_t which = 0;
  for (const auto links : {without_trailing_empty(inputs), without_trailing_empty(outputs), implicit_inputs}) {
    row.begin[which++] = static_cast<std::uint32_t>(links_.size());
    links_.insert(links_.end(), links.begin(), links.end());
  }
  if (links_.size() >= no_index) throw std::length_error("the graph has more than four billion links");
  row.begin[which] = static_cast<std::uint32_t>(links_.size());
  nodes_[node] = row;
}

void GraphTable::set(NameId name, Flag flag) {
  if (name == no_name) return;
  if (name >= flags_.size()) flags_.resize(names.size(), 0);
  flags_[name] |= flag;
}

void GraphTable::add_initializer(NameId name) { set(name, initializer); }

void GraphTable::add_graph_output(NameId name) { set(name, graph_output); }

void GraphTable::seal() {
  original_count_ = node_count();
  const std::size_t count = names.size();
  producers_.assign(count, no_index);
  // Counts first, then places. `last_reader` sees to it that each node counts once per tensor.
  std::vector<NodeIndex> last_reader(count, no_index);
  reader_begin_.assign(count + 1, 0);
  for (NodeIndex node = 0; node < original_count_; ++node) {
    for (const NameId name : outputs(node)) {
      if (name != no_name && producers_[name] == no_index) producers_[name] = node;
    }
    for (const NameId name : implicit_inputs(node)) set(name, body_read);
    for (const NameId name : inputs(node)) {
      if (name == no_name || last_reader[name] == node) continue;
      last_reader[name] = node;
      ++reader_begin_[name];
    }
  }
  std::partial_sum(reader_begin_.begin(), reader_begin_.end(), reader_begin_.begin());
  readers_.resize(reader_begin_[count]);
  // Filled from the last node to the first. Each name starts with the end of its readers, counts down, and so finishes
  // at their begin: no second array of positions is needed.
  last_reader.assign(count, no_index);
  for (NodeIndex node = original_count_; node-- > 0;) {
    for (const NameId name : inputs(node)) {
      if (name == no_name || last_reader[name] == node) continue;
      last_reader[name] = node;
      readers_[--reader_begin_[name]] = node;
    }
  }
}

std::span<const NodeIndex> GraphTable::readers(NameId name) const {
  if (static_cast<std::size_t>(name) + 1 >= reader_begin_.size()) return {};
  return std::span(readers_).subspan(reader_begin_[name], reader_begin_[name + 1] - reader_begin_[name]);
}

}  // namespace onnxgraft::core
