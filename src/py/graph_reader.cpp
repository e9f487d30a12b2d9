#include "py/graph_reader.h"

#include <algorithm>

#include "py/body_reader.h"
#include "py/graph_fields.h"
#include "py/objects.h"
#include "py/operator_bodies.h"

namespace onnxgraft::py {

namespace {

Ref node_list(PyObject* graph) {
  Ref nodes = optional_attribute(graph, field::node);
  if (nodes) return nodes;
  static const InternedName graph_field("graph");
  const bool is_model = PyObject_HasAttr(graph, graph_field.get()) != 0;
  raise(PyExc_TypeError, "graph must be a GraphProto, not %.200s%s", Py_TYPE(graph)->tp_name,
        is_model ? ": pass model.graph" : "");
}

/// Number of inputs that count: trailing empty names do not.
std::size_t input_count(PyObject* node) {
  const Ref inputs = attribute(node, field::input);
  Py_ssize_t count = length(inputs.get());
  while (count > 0 && utf8(item(inputs.get(), count - 1).get()).empty()) --count;
  return static_cast<std::size_t>(count);
}

/// Pattern nodes for which no graph node of the right operator and number of inputs was seen yet. Costs little where
/// they are soon found, and spares reading the links of a graph in which they never are.
class MissingRoles {
 public:
  MissingRoles(const core::Rule& rule, core::Names& ops) {
    for (const core::PatternNode& role : rule.nodes) roles_.emplace_back(ops.intern(role.op), &role);
  }

  void look_at(PyObject* node, core::NameId op) {
    const auto of_op = [&](const auto& role) { return role.first == op; };
    if (std::ranges::none_of(roles_, of_op)) return;
    const std::size_t count = input_count(node);
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

GraphReader::GraphReader(PyObject* graph) : graph_(graph), nodes_(node_list(graph)) {}

bool GraphReader::read_operators(const core::Rule& rule, core::GraphTable& table) {
  MissingRoles missing(rule, table.ops);
  const Ref elements = iterator(nodes_.get());
  while (const Ref node = next(elements.get())) {
    const core::NameId op = table.ops.intern(utf8(attribute(node.get(), field::op_type).get()));
    ops_.push_back(op);
    missing.look_at(node.get(), op);
  }
  return missing.empty();
}

void GraphReader::read_links(core::GraphTable& table) {
  std::vector<core::NameId> inputs;
  std::vector<core::NameId> outputs;
  std::vector<core::NameId> implicit;
  std::size_t index = 0;
  OperatorBodies bodies(table.ops);
  const Ref elements = iterator(nodes_.get());
  while (const Ref node = next(elements.get())) {
    if (index == ops_.size()) raise(PyExc_RuntimeError, "the graph's node list changed while it was read");
    inputs.clear();
    outputs.clear();
    implicit.clear();
    read_strings(attribute(node.get(), field::input).get(), table.names, inputs);
    read_strings(attribute(node.get(), field::output).get(), table.names, outputs);
    if (bodies.possible(node.get(), ops_[index])) read_body_inputs(node.get(), table.names, implicit);
    table.add_node(ops_[index++], inputs, outputs, implicit);
  }
  if (index != ops_.size()) raise(PyExc_RuntimeError, "the graph's node list changed while it was read");
  table.initializers = read_element_names(attribute(graph_, field::initializer).get(), table.names);
  for (const core::NameId name : table.initializers) table.add_initializer(name);
  for (const core::NameId name : read_element_names(attribute(graph_, field::output).get(), table.names)) {
    table.add_graph_output(name);
  }
  table.seal();
}

void GraphReader::read_names(core::GraphTable& table) {
  table.node_names = read_element_names(nodes_.get(), table.names);
  read_element_names(attribute(graph_, field::input).get(), table.names);
  read_element_names(attribute(graph_, field::value_info).get(), table.names);
  read_sparse_names(graph_, table.names);
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
