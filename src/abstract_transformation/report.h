// What a pass tells about itself: the line that `debug=True` writes, and the nearest miss as data.
#pragma once

#include <chrono>

#include "abstract_transformation/pass.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Writes one line to `sys.stderr`.
void write_debug_line(PyObject* transformation, PyObject* graph, PyObject* pattern, const core::Rule& rule,
                      const Pass::Counts& counts, std::chrono::steady_clock::duration time);

/// `nearest_miss(graph, subgraph, replacement)`: a dict, or None if the pattern fits somewhere.
Ref nearest_miss(PyObject* graph, const core::Rule& rule);

/// `find_occurrences(graph, subgraph, replacement)`: a list of dicts.
Ref find_occurrences(PyObject* graph, const core::Rule& rule);

}  // namespace onnxgraft::py
