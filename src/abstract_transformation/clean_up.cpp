#include "abstract_transformation/clean_up.h"

#include <algorithm>
#include <optional>

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

/// Where the initializers to delete stand if the list is, up to there, as it was read: most callbacks only append.
/// None if it is not.
std::optional<std::vector<std::size_t>> positions_as_read(PyObject* list, const core::GraphTable& table,
                                                          const NameSet& set) {
  std::vector<std::size_t> positions;
  const auto count = static_cast<std::size_t>(length(list));
  for (std::size_t at = 0; at < table.initializers.size(); ++at) {
    if (!contains(set, table.initializers[at])) continue;
    if (at >= count) return std::nullopt;
    const Ref name = attribute(item(list, static_cast<Py_ssize_t>(at)).get(), field::name);
    if (utf8(name.get()) != table.names.text(table.initializers[at])) return std::nullopt;
    positions.push_back(at);
  }
  return positions;
}

/// Deletes unused initializers; true if there were any.
bool delete_initializers(PyObject* graph, core::GraphTable& table, const NameSet& unused, bool trust_table) {
  const Ref list = attribute(graph, field::initializer);
  if (!trust_table) return delete_named(list.get(), table.names, unused);
  const auto positions = positions_as_read(list.get(), table, unused);
  if (!positions) return delete_named(list.get(), table.names, unused);
  delete_positions(list.get(), *positions);
  return !positions->empty();
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
    if (found && delete_initializers(graph, table, unused, trust_table)) {
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
