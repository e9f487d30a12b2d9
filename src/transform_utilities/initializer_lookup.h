// `get_init`: contents and records of named initializers.
#pragma once

#include "py/function.h"

namespace onnxgraft::transform_utilities {

/// `get_init(graph, names)` -> (list of arrays, list of records), both in the order of `names`.
py::Ref get_init(const py::Call& call);

}  // namespace onnxgraft::transform_utilities
