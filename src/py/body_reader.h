// What the nested bodies of a node (If, Loop, Scan) read from the graph around them.
//
// Bodies are not rewritten. But what they read from outside counts as a use of that tensor, and every name in them is
// in use, so that fresh names differ from it. Nothing here knows patterns.
#pragma once

#include <vector>

#include "core/names.h"
#include "py/graph_fields.h"
#include "py/objects.h"

namespace onnxgraft::py {

/// Calls `visit(graph)` for every body in the node's attributes, in any domain.
template <class Visit>
void for_each_body(PyObject* node, Visit&& visit) {
  constexpr long attribute_type_graph = 5;  // AttributeProto.AttributeType
  constexpr long attribute_type_graphs = 10;
  const Ref attributes = attribute(node, field::attribute);
  const Py_ssize_t count = length(attributes.get());
  for (Py_ssize_t index = 0; index < count; ++index) {
    const Ref entry = item(attributes.get(), index);
    const std::int64_t type = integer_value(attribute(entry.get(), field::type).get());
    if (type == attribute_type_graph) visit(attribute(entry.get(), field::g).get());
    if (type != attribute_type_graphs) continue;
    const Ref graphs = iterator(attribute(entry.get(), field::graphs).get());
    while (const Ref graph = next(graphs.get())) visit(graph.get());
  }
}

/// Adds to `result` the names that bodies in the node's attributes read from outside, and interns every name in them. A
/// name belongs to a body if an input, an initializer or an earlier node of it (or of a body around it) defines it. An
/// output that the body does not define is an outer tensor.
void read_body_inputs(PyObject* node, core::Names& names, std::vector<core::NameId>& result);

/// Interns the names of the graph's sparse initializers and returns them.
std::vector<core::NameId> read_sparse_names(PyObject* graph, core::Names& names);

}  // namespace onnxgraft::py
