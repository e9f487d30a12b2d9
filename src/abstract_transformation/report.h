// What a pass reports: the line that `debug=True` writes, and occurrences and near misses as data.
//
// Nothing here changes a graph, or takes part in a pass.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "abstract_transformation/pass.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Writes one line to `sys.stderr`.
void write_debug_line(PyObject* transformation, PyObject* graph, PyObject* pattern, const core::Rule& rule,
                      const Pass::Counts& counts, std::chrono::steady_clock::duration time);

/// `nearest_miss(graph, subgraph, replacement)`: a dict, or None if the pattern fits somewhere.
Ref nearest_miss(PyObject* graph, const core::Rule& rule);

/// `trace_nodes(graph, pairs, nodes)`: a list of dicts. The graph is read once for all rules.
Ref trace_nodes(PyObject* graph, const std::vector<std::shared_ptr<const core::Rule>>& rules, PyObject* nodes);

/// `find_occurrences(graph, subgraph, replacement)`: a list of dicts.
Ref find_occurrences(PyObject* graph, const core::Rule& rule);

}  // namespace onnxgraft::py
