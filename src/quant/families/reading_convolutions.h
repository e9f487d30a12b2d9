// The convolutions that read one tensor, with their weights and biases.
//
// For the pull-up family. Only the view is asked, so that biases which wait for the end of the round are found too.
#pragma once

#include <optional>
#include <vector>

#include "quant/graph_view/graph_view.h"

namespace onnxgraft::quant {

struct ReadingConvolution {
  py::Ref node;
  py::Ref weight;       // array
  py::Ref bias;         // array; empty without bias
  py::Ref bias_record;  // empty without bias
};

/// Whether any of them has a padding other than 0; a missing attribute means none.
bool any_padded(const std::vector<py::Ref>& convolutions);

/// Which of them is padded, and how.
py::Ref padding_words(const std::vector<py::Ref>& convolutions, PyObject* tensor);

/// Looks weights and biases up, but for biases that wait for the end of the round, whose arrays are empty; none if a
/// look-up gives nothing for one of the names.
std::optional<std::vector<ReadingConvolution>> with_tensors(GraphView& view, std::vector<py::Ref> convolutions);

/// Which weight or bias of a convolution that reads the tensor is not an initializer.
py::Ref tensor_words(GraphView& view, PyObject* tensor);

}  // namespace onnxgraft::quant
