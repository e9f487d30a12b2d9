// Names that are not UTF-8, which protobuf lets pass: where in the graph the first of them stands.
#pragma once

#include "py/objects.h"

namespace onnxgraft::py {

/// ValueError that names node or record and field. If no such name is found, the error that is set goes on.
[[noreturn]] void raise_bad_name(PyObject* graph);

/// Runs `body`, which reads names of the graph; if one is not UTF-8, the error says where it stands.
template <class Body>
auto with_places(PyObject* graph, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const NotUtf8&) {
    raise_bad_name(graph);
  }
}

}  // namespace onnxgraft::py
