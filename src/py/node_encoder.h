// New nodes in protobuf's wire format.
//
// The graph writer collects the new nodes of a round as bytes, and the graph merges them at once. To make the same
// nodes one by one, field by field, takes about nine times as long, because each step goes through a Python object.
// Invariant: bytes of a copied node are taken over unread, except for its links and perhaps its name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/graph_table.h"
#include "py/ref.h"

namespace onnxgraft::py {

class NodeEncoder {
 public:
  /// `graph` and `table` are borrowed and must outlive the encoder.
  NodeEncoder(PyObject* graph, const core::GraphTable& table);

  /// False if the graph cannot merge bytes: it is an object that only looks like a message. The writer then makes nodes
  /// field by field.
  [[nodiscard]] bool usable() const { return static_cast<bool>(merge_); }

  /// Adds the node to those that wait. When these have become many, they are flushed.
  void add(core::NodeIndex node);
  /// The same for a node that copies `source` with other links and perhaps another name. False if `source` does not
  /// return its bytes.
  bool add_copy(core::NodeIndex node, PyObject* source, bool keeps_name);
  /// Appends the nodes that wait to the graph's node list.
  void flush();

 private:
  void add_links(core::NodeIndex node);
  void finish_node();

  Ref merge_;  // the graph's method
  const core::GraphTable& table_;
  std::string waiting_;
  std::string node_;  // scratch
};

}  // namespace onnxgraft::py
