// New nodes in protobuf's wire format.
//
// A graph that merges such bytes gets all their nodes at once. Making the same nodes one by one, field by field, takes
// about nine times as long: each step would go through an object of its own.
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

  /// False if the graph cannot merge bytes: it only looks like a message.
  [[nodiscard]] bool usable() const { return static_cast<bool>(merge_); }

  /// Adds the node to those that wait; what waits goes into the graph when it has become much.
  void add(core::NodeIndex node);
  /// The same for a node that copies `source`, links and perhaps the name excepted: all else is taken over as it is.
  /// False if it cannot be copied this way, because `source` does not give its bytes.
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
