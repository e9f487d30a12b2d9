// Contents of a tensor, in the graph or in a data file.
//
// The tensor is never changed. Must not know names or graphs: the look-up is in initializer_lookup.cpp.
#pragma once

#include "py/objects.h"

namespace onnxgraft::transform_utilities {

/// The contents as an array: what `numpy_helper.to_array` gives or, where they lie in a file and NumPy has the
/// element type, a read-only memory map, of which nothing is read before it is used.
py::Ref contents(PyObject* module, PyObject* tensor);

}  // namespace onnxgraft::transform_utilities
