// From a GraphProto to the core's table, each field of each node read once.
//
// Reading goes in three steps, each only as far as a pass needs it: operator types (a pass whose operators
// are missing ends here), links, and the names that fresh names have to avoid.
#pragma once

#include <string_view>
#include <vector>

#include "core/graph_table.h"
#include "core/rule.h"
#include "py/ref.h"

namespace onnxgraft::py {

class GraphReader {
 public:
  /// `graph` is borrowed and must outlive the reader. A ModelProto or anything else without a node list is a
  /// TypeError that says what to pass.
  explicit GraphReader(PyObject* graph);

  /// Reads all operator types; false if some node of the rule's pattern has no counterpart of its operator and
  /// number of inputs, so that nothing can match.
  bool read_operators(const core::Rule& rule, core::GraphTable& table);
  /// Reads links, bodies, initializers and outputs, and seals the table.
  void read_links(core::GraphTable& table);
  /// Reads all other names.
  void read_names(core::GraphTable& table);

  [[nodiscard]] PyObject* nodes() const { return nodes_.get(); }

 private:
  PyObject* graph_;
  Ref nodes_;
  std::vector<core::NameId> ops_;  // per node, from the first step
};

/// Interns the strings of a repeated string field into `result`.
void read_strings(PyObject* container, core::Names& names, std::vector<core::NameId>& result);

/// Interns the `name` field of every element of a repeated message field.
std::vector<core::NameId> read_element_names(PyObject* container, core::Names& names);

}  // namespace onnxgraft::py
