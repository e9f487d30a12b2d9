// What can be told of an initializer without making an array of it.
#pragma once

#include "py/function.h"

namespace onnxgraft::transform_utilities {

/// (graph, name) -> (code of the element type, shape), as record and array from `get_init` would have them; None where
/// only `get_init` can tell: the data lie in a file, are typed or do not fit the shape, nothing has that name, or the
/// library's `to_array` is not its own.
py::Ref description(const py::Call& call);

}  // namespace onnxgraft::transform_utilities
