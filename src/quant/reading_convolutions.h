// The convolutions that read one tensor, with their weights and biases.
#pragma once

#include <optional>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::quant {

struct ReadingConvolution {
  py::Ref node;
  py::Ref weight;       // array
  py::Ref bias;         // array; empty without bias
  py::Ref bias_record;  // empty without bias
};

/// Every `Conv` of the graph that has the tensor among its inputs, in graph order. An omitted bias (an empty
/// third input) is none.
std::vector<py::Ref> convolutions_reading(PyObject* graph, PyObject* tensor);

/// Whether any of them has a padding other than 0; a missing attribute means none.
bool any_padded(const std::vector<py::Ref>& convolutions);

/// Which of them is padded, and how.
py::Ref padding_words(const std::vector<py::Ref>& convolutions, PyObject* tensor);

/// Looks weights and biases up; none if a look-up gives nothing for one of the names.
std::optional<std::vector<ReadingConvolution>> with_tensors(PyObject* module, PyObject* graph,
                                                            std::vector<py::Ref> convolutions);

/// Which weight or bias of a convolution that reads the tensor is no initializer.
py::Ref tensor_words(PyObject* graph, PyObject* tensor);

}  // namespace onnxgraft::quant
