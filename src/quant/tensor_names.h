// Names of tensors in a graph.
#pragma once

#include <functional>

#include "py/objects.h"

namespace onnxgraft::quant {

/// Gets the name of a tensor, and the position of the node that writes it if it is a node of the graph itself.
using TensorNameTest = std::function<bool(const py::Ref& name, Py_ssize_t node)>;
inline constexpr Py_ssize_t no_node = -1;

/// Whether the test holds for the name of any initializer of the graph.
bool any_initializer_name(PyObject* graph, const TensorNameTest& test);
/// Whether it holds for any other name that something in the graph or in a nested body defines.
bool any_other_tensor_name(PyObject* graph, const TensorNameTest& test);

/// Whether anything in the graph or in a nested body defines a tensor of that name: an initializer, an input, an
/// output, a node, a `value_info` entry.
bool is_tensor_name(PyObject* graph, PyObject* name);

/// The name itself if no tensor has it, else with the lowest number behind it that makes it new.
py::Ref fresh_tensor_name(PyObject* graph, PyObject* wanted);

}  // namespace onnxgraft::quant
