// What the nested bodies of a node (of If, Loop, Scan) read from the graph around them.
#pragma once

#include <vector>

#include "core/names.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Adds to `result` the names that bodies in the node's attributes take from outside, and interns every name
/// in them. A name is a body's own if an input, an initializer or an earlier node of the body (or of a body
/// around it) defines it; an output of a body that nothing in it defines names an outer tensor. False if there is no
/// body.
bool read_body_inputs(PyObject* node, core::Names& names, std::vector<core::NameId>& result);

/// Interns the names of the graph's sparse initializers and returns them.
std::vector<core::NameId> read_sparse_names(PyObject* graph, core::Names& names);

}  // namespace onnxgraft::py
