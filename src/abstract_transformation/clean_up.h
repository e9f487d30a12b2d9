// What leaves a graph after occurrences were accepted: initializers that only removed nodes read, graph inputs of the
// same names, and `value_info` that is out of date.
//
// It runs once, at the end of a pass, and must not know which occurrences there were, only names.
#pragma once

#include <vector>

#include "core/graph_table.h"
#include "py/graph_writer.h"
#include "py/ref.h"

namespace onnxgraft::py {

struct CleanUpNames {
  std::vector<core::NameId> read_by_removed;  // inputs of removed nodes
  std::vector<core::NameId> changed;          // tensors that vanished or may have another type now
};

/// `trust_table`: only the writer has changed the graph since it was read, so that uses can be taken
/// from the table; else the graph is read again.
void clean_up(PyObject* graph, core::GraphTable& table, const GraphWriter& writer, const CleanUpNames& names,
              bool trust_table);

}  // namespace onnxgraft::py
