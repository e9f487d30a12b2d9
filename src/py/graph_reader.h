// From a GraphProto to the core's table, each field of each node read once.
//
// Reading has three steps, and each goes only as far as a pass needs: operator types (a pass whose operators are
// missing ends here), nodes and links, and the other names that fresh names must avoid. A step that an earlier pass has
// done costs little. The reader never writes to the graph, and it decides nothing about matching beyond operators.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "core/graph_table.h"
#include "core/rule.h"
#include "py/graph_reading.h"
#include "py/ref.h"

namespace onnxgraft::py {

class GraphReader {
 public:
  /// `graph` and `reading` are borrowed and must outlive the reader. TypeError for a ModelProto, or anything else
  /// without a node list; it states what to pass.
  GraphReader(PyObject* graph, GraphReading& reading);

  /// Reads all operator types; false if some node of the rule's pattern has no counterpart of its operator and
  /// number of inputs, so that nothing can match.
  bool read_operators(const core::Rule& rule);
  /// Reads names, links and bodies of nodes, initializers and outputs, and seals the table. Matching needs no more.
  void read_links();
  /// Reads all other names. Only before a splice, which must not invent one of them.
  void read_names();

  [[nodiscard]] PyObject* nodes() const { return nodes_.get(); }

 private:
  [[nodiscard]] std::size_t input_count(std::size_t position) const;
  void add_empty_rows();
  void add_row(PyObject* node, core::NameId op);
  void read_row(PyObject* node, core::NameId op);
  bool read_fields_of_bytes(PyObject* node, core::NameId op);
  void read_fields(PyObject* node);
  void read_first_rows();
  void read_tensors();

  /// What one node says. Refilled for each node, without a new allocation.
  struct Row {
    std::vector<core::NameId> inputs;
    std::vector<core::NameId> outputs;
    std::vector<core::NameId> implicit;
    core::NameId name = core::no_name;
  };

  PyObject* graph_;
  GraphReading& reading_;
  Ref nodes_;
  bool gives_bytes_;
  // Scratch.
  Row row_;
  std::vector<std::pair<std::uint64_t, core::Names::Hashed>> announced_;
};

/// Interns the strings of a repeated string field into `result`.
void read_strings(PyObject* container, core::Names& names, std::vector<core::NameId>& result);

/// Interns the `name` field of every element of a repeated message field.
std::vector<core::NameId> read_element_names(PyObject* container, core::Names& names);

}  // namespace onnxgraft::py
