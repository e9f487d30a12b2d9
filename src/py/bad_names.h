// Names that are not UTF-8, which protobuf accepts: where in the graph the first of them is.
//
// Reading stops at the name without knowing its place, because to carry the place along would cost every read. Only
// after the failure the graph is searched for it, field by field. The graph has not been changed at that point.
#pragma once

#include "py/objects.h"

namespace onnxgraft::py {

/// ValueError that names the node or record and the field. If a callback has removed the name meanwhile, ValueError
/// without a place.
[[noreturn]] void raise_bad_name(PyObject* graph);

/// Runs `body`, which reads names of the graph. If one is not UTF-8, the error states its place.
template <class Body>
auto with_places(PyObject* graph, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const NotUtf8&) {
    raise_bad_name(graph);
  }
}

}  // namespace onnxgraft::py
