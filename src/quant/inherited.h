// The callback that a class inherits, as `super()` finds it.
#pragma once

#include "py/function.h"

namespace onnxgraft::quant {

/// `super(<class>, self)._on_replace_subgraph(graph, replaced_nodes, node_mapping, links, **kwargs)`.
py::Ref inherited_callback(const py::Call& call, const py::InternedName& class_name, PyObject* links);

}  // namespace onnxgraft::quant
