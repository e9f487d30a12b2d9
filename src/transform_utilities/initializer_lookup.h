// `get_init`: contents and records of named initializers.
//
// Records are those of the graph, not copies. Positions come from the name index, contents from external_data.h.
#pragma once

#include "py/function.h"

namespace onnxgraft::transform_utilities {

/// `get_init(graph, names)` -> (list of arrays, list of records), both in the order of `names`.
py::Ref get_init(const py::Call& call);

}  // namespace onnxgraft::transform_utilities
