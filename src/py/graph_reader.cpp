// Reading nodes with as few calls into protobuf as possible.
//
// A node is taken as bytes where that is possible: protobuf makes an object for each list of names and registers it in
// a table of all objects, and in large graphs that is most of the cost. Nodes with bodies, and objects that only look
// like messages, are read field by field.
#include "py/graph_reader.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "py/body_reader.h"
#include "py/graph_fields.h"
#include "py/message_list.h"
#include "py/objects.h"
#include "py/wire_fields.h"

namespace onnxgraft::py {

using Depth = GraphReading::Depth;

namespace {

Ref node_list(PyObject* graph) {
  Ref nodes = optional_attribute(graph, field::node);
  if (nodes) return nodes;
  static const InternedName graph_field("graph");
  const bool is_model = PyObject_HasAttr(graph, graph_field.get()) != 0;
  raise(PyExc_TypeError, "graph must be a GraphProto, not %.200s%s", Py_TYPE(graph)->tp_name,
        is_model ? ": pass model.graph" : "");
}

/// The number of inputs without trailing empty names.
std::size_t count_inputs(PyObject* inputs) {
  Py_ssize_t count = length(inputs);
  while (count > 0 && utf8(item(inputs, count - 1).get()).empty()) --count;
  return static_cast<std::size_t>(count);
}

/// Pattern nodes for which no graph node with their operator and number of inputs was seen yet. `read_operators` asks
/// it at each node. It costs little if all are soon found, and saves reading the links if one of them never is.
class MissingRoles {
 public:
  MissingRoles(const core::Rule& rule, core::Names& ops) {
    for (const core::PatternNode& role : rule.nodes) roles_.emplace_back(ops.intern(role.op), &role);
  }

  /// `input_count()` is called only for operators of the pattern, since it reads the node.
  template <class Count>
  void look_at(core::NameId op, Count input_count) {
    const auto of_op = [&](const auto& role) { return role.first == op; };
    if (std::ranges::none_of(roles_, of_op)) return;
    const std::size_t count = input_count();
    std::erase_if(roles_, [&](const auto& role) {
      const std::size_t named = role.second->inputs.size();
      return role.first == op && (role.second->rest ? count >= named : count == named);
    });
  }

  [[nodiscard]] bool empty() const { return roles_.empty(); }

 private:
  std::vector<std::pair<core::NameId, const core::PatternNode*>> roles_;
};

}  // namespace

GraphReader::GraphReader(PyObject* graph, GraphReading& reading)
    : graph_(graph), reading_(reading), nodes_(node_list(graph)), gives_bytes_(is_message_list(nodes_.get())) {}

std::size_t GraphReader::input_count(std::size_t position) const {
  const auto row = static_cast<core::NodeIndex>(position);
  if (reading_.depth == Depth::links || position >= reading_.without_row) return reading_.table.inputs(row).size();
  const Ref inputs = attribute(item(nodes_.get(), static_cast<Py_ssize_t>(position)).get(), field::input);
  return count_inputs(inputs.get());
}

/// As soon as no pattern node is missing, links and names are read at the same visit: to get a node from protobuf costs
/// about as much as two of its fields. One visit instead of two saves a tenth of a merge.
bool GraphReader::read_operators(const core::Rule& rule) {
  MissingRoles missing(rule, reading_.table.ops);
  if (reading_.depth != Depth::nothing) {
    for (std::size_t at = 0; at < reading_.ops.size() && !missing.empty(); ++at) {
      missing.look_at(reading_.ops[at], [&] { return input_count(at); });
    }
    return missing.empty();
  }
  // Only for protobuf's own lists: another object's length may be anything.
  if (gives_bytes_) reading_.ops.reserve(static_cast<std::size_t>(length(nodes_.get())));
  const Ref elements = iterator(nodes_.get());
  while (const Ref node = next(elements.get())) {
    const core::NameId op = reading_.table.ops.intern(utf8(attribute(node.get(), field::op_type).get()));
    reading_.ops.push_back(op);
    if (missing.empty()) {
      add_row(node.get(), op);
      continue;
    }
    ++reading_.without_row;
    missing.look_at(op, [&] { return count_inputs(attribute(node.get(), field::input).get()); });
    if (missing.empty()) add_empty_rows();
  }
  reading_.depth = Depth::operators;
  return missing.empty();
}

/// Rows for the nodes that were passed while a pattern node was missing.
void GraphReader::add_empty_rows() {
  reading_.table.reserve(reading_.ops.capacity());
  reading_.table.add_empty_nodes(reading_.without_row);
  reading_.table.node_names.resize(reading_.without_row, core::no_name);
}

void GraphReader::add_row(PyObject* node, core::NameId op) {
  read_row(node, op);
  reading_.table.add_node(op, row_.inputs, row_.outputs, row_.implicit);
  reading_.table.node_names.push_back(row_.name);
}

void GraphReader::read_row(PyObject* node, core::NameId op) {
  for (auto* names : {&row_.inputs, &row_.outputs, &row_.implicit}) names->clear();
  if (!read_fields_of_bytes(node, op)) read_fields(node);
}

/// Reads a node from its bytes. False if it must be read field by field: it holds a body, a name is not UTF-8, or its
/// operator usually holds large contents, which the bytes would copy. Saves a tenth of a pass that finds nothing.
bool GraphReader::read_fields_of_bytes(PyObject* node, core::NameId op) {
  static const InternedName serialize("SerializePartialToString");
  core::Names& names = reading_.table.names;
  if (!gives_bytes_ || may_be_large(reading_.table.ops.text(op))) return false;
  const Ref bytes = call_method(node, serialize);
  if (PyBytes_CheckExact(bytes.get()) == 0) return false;
  const auto size = static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get()));
  announced_.clear();
  WireFields fields({PyBytes_AS_STRING(bytes.get()), size});
  while (const auto field = fields.next()) {
    const bool is_name = field->number <= node_field::name;
    if ((is_name || field->number == node_field::domain) && !is_utf8(field->content)) return false;
    if (is_name) {
      announced_.emplace_back(field->number, names.announce(field->content));
    }
    if (field->number == node_field::attribute && holds_graph(field->content)) return false;
  }
  // All fields are known to be names by now: nothing is interned for a node that has to be read field by field.
  row_.name = core::no_name;
  for (const auto& [number, name] : announced_) {
    const core::NameId id = names.intern(name);
    if (number == node_field::input) row_.inputs.push_back(id);
    if (number == node_field::output) row_.outputs.push_back(id);
    if (number == node_field::name) row_.name = id;
  }
  return true;
}

void GraphReader::read_fields(PyObject* node) {
  core::GraphTable& table = reading_.table;
  read_strings(attribute(node, field::input).get(), table.names, row_.inputs);
  read_strings(attribute(node, field::output).get(), table.names, row_.outputs);
  read_body_inputs(node, table.names, row_.implicit);
  utf8(attribute(node, field::domain).get());  // refused here if it is not UTF-8
  row_.name = table.names.intern(utf8(attribute(node, field::name).get()));
}

void GraphReader::read_links() {
  if (reading_.depth == Depth::links) return;
  read_first_rows();
  read_tensors();
  reading_.table.seal();
  reading_.depth = Depth::links;
}

/// Reads the rows that are still missing, from the start of the list.
void GraphReader::read_first_rows() {
  core::GraphTable& table = reading_.table;
  if (table.node_count() == 0) add_empty_rows();
  const Ref elements = iterator(nodes_.get());
  for (core::NodeIndex at = 0; at < reading_.without_row; ++at) {
    const Ref node = next(elements.get());
    if (!node) raise(PyExc_RuntimeError, "the graph's node list changed while it was read");
    read_row(node.get(), reading_.ops[at]);
    table.set_node(at, reading_.ops[at], row_.inputs, row_.outputs, row_.implicit);
    table.node_names[at] = row_.name;
  }
}

void GraphReader::read_tensors() {
  core::GraphTable& table = reading_.table;
  table.initializers = read_element_names(attribute(graph_, field::initializer).get(), table.names);
  for (const core::NameId name : table.initializers) table.add_initializer(name);
  for (const core::NameId name : read_element_names(attribute(graph_, field::output).get(), table.names)) {
    table.add_graph_output(name);
  }
}

void GraphReader::read_names() {
  core::GraphTable& table = reading_.table;
  read_sparse_names(graph_, table.names);
  for (const InternedName* list : {&field::input, &field::output, &field::value_info}) {
    read_element_names(attribute(graph_, *list).get(), table.names);
  }
  const Ref annotations = attribute(graph_, field::quantization_annotation);
  for (Py_ssize_t index = 0; index < length(annotations.get()); ++index) {
    const Ref annotation = item(annotations.get(), index);
    table.names.intern(utf8(attribute(annotation.get(), field::tensor_name).get()));
  }
}

void read_strings(PyObject* container, core::Names& names, std::vector<core::NameId>& result) {
  const Py_ssize_t count = length(container);
  for (Py_ssize_t index = 0; index < count; ++index) {
    result.push_back(names.intern(utf8(item(container, index).get())));
  }
}

std::vector<core::NameId> read_element_names(PyObject* container, core::Names& names) {
  std::vector<core::NameId> result;
  const Ref elements = iterator(container);
  while (const Ref element = next(elements.get())) {
    result.push_back(names.intern(utf8(attribute(element.get(), field::name).get())));
  }
  return result;
}

}  // namespace onnxgraft::py
