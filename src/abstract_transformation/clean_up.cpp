// Deletes what only removed nodes needed.
//
// Invariant: a name that any remaining node, body or graph output reads is never deleted. If the table can be trusted,
// uses come from it: reading the graph again takes two fifths longer for merges. Must not know patterns.
#include "abstract_transformation/clean_up.h"

#include <algorithm>

#include "py/body_reader.h"
#include "py/graph_fields.h"
#include "py/graph_reader.h"
#include "py/message_list.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

using NameSet = std::vector<bool>;

bool contains(const NameSet& set, core::NameId name) { return name < set.size() && set[name]; }

/// Takes the names out of the set.
void drop(NameSet& set, std::span<const core::NameId> names) {
  for (const core::NameId name : names) {
    if (name < set.size()) set[name] = false;
  }
}

void drop_uses_in_table(NameSet& set, const core::GraphTable& table, const GraphWriter& writer) {
  for (const core::NodeIndex node : writer.order()) {
    drop(set, table.inputs(node));
    drop(set, table.implicit_inputs(node));
  }
}

void drop_uses_in_graph(NameSet& set, PyObject* graph, core::GraphTable& table) {
  std::vector<core::NameId> uses;
  const Ref nodes = iterator(attribute(graph, field::node).get());
  while (const Ref node = next(nodes.get())) {
    uses.clear();
    read_strings(attribute(node.get(), field::input).get(), table.names, uses);
    read_body_inputs(node.get(), table.names, uses);
    drop(set, uses);
  }
}

/// Deletes the elements of a repeated message field whose names are in the set; true if there were any.
bool delete_named(PyObject* list, core::Names& names, const NameSet& set) {
  const std::vector<core::NameId> elements = read_element_names(list, names);
  std::vector<std::size_t> positions;
  for (std::size_t at = 0; at < elements.size(); ++at) {
    if (contains(set, elements[at])) positions.push_back(at);
  }
  delete_positions(list, positions);
  return !positions.empty();
}

}  // namespace

void clean_up(PyObject* graph, core::GraphTable& table, const GraphWriter& writer, const CleanUpNames& names,
              bool trust_table) {
  NameSet unused(table.names.size(), false);
  bool any = false;
  for (const core::NameId name : names.read_by_removed) {
    if (!table.is_initializer(name)) continue;
    unused[name] = true;
    any = true;
  }
  if (any) {
    if (trust_table) {
      drop_uses_in_table(unused, table, writer);
    } else {
      drop_uses_in_graph(unused, graph, table);
    }
    drop(unused, read_element_names(attribute(graph, field::output).get(), table.names));
    const bool found = std::ranges::find(unused, true) != unused.end();
    if (found && delete_named(attribute(graph, field::initializer).get(), table.names, unused)) {
      delete_named(attribute(graph, field::input).get(), table.names, unused);
    }
  }
  const Ref value_info = attribute(graph, field::value_info);
  if (names.changed.empty() || length(value_info.get()) == 0) return;
  NameSet changed(table.names.size(), false);
  for (const core::NameId name : names.changed) changed[name] = true;
  delete_named(value_info.get(), table.names, changed);
}

}  // namespace onnxgraft::py
