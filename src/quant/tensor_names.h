// Names of tensors in a graph.
#pragma once

#include "py/objects.h"

namespace onnxgraft::quant {

/// Whether anything in the graph or in a nested body defines a tensor of that name: an initializer, an input, an
/// output, a node, a `value_info` entry.
bool is_tensor_name(PyObject* graph, PyObject* name);

/// The name itself if no tensor has it, else with the lowest number behind it that makes it new.
py::Ref fresh_tensor_name(PyObject* graph, PyObject* wanted);

}  // namespace onnxgraft::quant
