// Methods of the transformation that callbacks call. A subclass may override any of them; built-in ones see the same
// view of the graph as the callback.
#pragma once

#include "py/function.h"

namespace onnxgraft::quant {

/// `self.<method>(*arguments, **keywords)`.
py::Ref call_own(const py::Call& call, const py::InternedName& method, std::initializer_list<PyObject*> arguments,
                 std::initializer_list<py::Keyword> keywords);

/// `super(<class of the callback>, self)._on_replace_subgraph(graph, replaced_nodes, node_mapping, links, **kwargs)`.
py::Ref inherited_callback(const py::Call& call, PyObject* links);

}  // namespace onnxgraft::quant
