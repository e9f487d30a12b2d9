// The attributes of a new quantize node.
#pragma once

#include "py/function.h"

namespace onnxgraft::quant {

/// Gives the node `scale` 1.0 and `offset` 0.0. `call` is one of a method of the transformation.
void add_quantize_attributes(const py::Call& call, PyObject* graph, PyObject* node);

}  // namespace onnxgraft::quant
