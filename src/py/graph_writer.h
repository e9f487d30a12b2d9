// Carries out plans on a graph's node list.
//
// The writer knows which node is at each position and brings the list from one order to another: missing nodes are made
// at the end, one reordering puts all in place, and nodes that go are cut off the end. If a step fails, the list is put
// back as it was; only an error that comes after the last step finds the new order. Nodes that stay keep their
// identity. The writer decides nothing: which nodes, and in which order, is for the plan to say.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/graph_table.h"
#include "py/node_encoder.h"
#include "py/ref.h"

namespace onnxgraft::py {

class GraphWriter {
 public:
  /// `graph` and the table are borrowed and must outlive the writer; `nodes` is the graph's node list.
  GraphWriter(PyObject* graph, PyObject* nodes, core::GraphTable& table)
      : graph_(graph), nodes_(Ref::borrow(nodes)), table_(table) {}

  /// Takes the table's nodes as the content of the list. Called once, when the table has been read.
  void begin();
  [[nodiscard]] bool has_begun() const { return begun_; }

  /// The nodes of the graph in list order, as of the last time that the writer changed or read the list.
  [[nodiscard]] std::span<const core::NodeIndex> order() const { return order_; }
  /// The graph's object for a node of the list, or the one that is held for it.
  [[nodiscard]] Ref object(core::NodeIndex node) const;
  /// Holds a node's object, so that it outlives the node's removal: a refusal may bring it back. Held objects cost
  /// memory, and protobuf slows down with their number, so the pass holds only nodes that may come back.
  void hold(core::NodeIndex node);
  /// Gives up a removed node that will not come back.
  void release(core::NodeIndex node);
  /// Holds the objects of all nodes, so that changes by a callback can be recognised by identity later.
  void hold_all();
  /// Takes another object as the graph's list. A callback that clears the whole graph leaves the old list detached.
  void follow(Ref nodes);
  /// Position of the node in the graph right now; -1 if it is gone. Notices if a callback changed the list.
  Py_ssize_t position(core::NodeIndex node);
  /// Reads the list again if a callback changed it: new nodes become part of the table. True if it changed since the
  /// last `rearrange`. Without `hold_all`, only the writer may change the list.
  bool synchronize();

  /// Brings the list into the order `target`. Nodes that the list lacks are made: a new node from its row (and a copy
  /// of its source, if it has one), a node that was removed earlier from its own object.
  void rearrange(std::span<const core::NodeIndex> target);

  /// Notes that the new node copies the content of another one.
  void set_source(core::NodeIndex new_node, core::NodeIndex source);

 private:
  void make_missing(std::span<const core::NodeIndex> target, std::vector<core::NodeIndex>& now);
  bool encode(core::NodeIndex node, NodeEncoder& encoder) const;
  void make(core::NodeIndex node);
  void fill(PyObject* message, core::NodeIndex node);
  void move_to(std::span<const core::NodeIndex> from, std::span<const core::NodeIndex> to);
  void undo(std::span<const core::NodeIndex> now, std::span<const core::NodeIndex> before);
  void set_order(std::vector<core::NodeIndex> order);
  void become(std::span<const core::NodeIndex> order);
  [[nodiscard]] bool is_held(core::NodeIndex node) const { return node < held_.size() && held_[node]; }
  void keep_object(core::NodeIndex node, Ref message);
  [[nodiscard]] bool is_at(core::NodeIndex node, std::size_t position) const;
  void read_again();
  core::NodeIndex adopt(PyObject* message);

  PyObject* graph_;
  Ref nodes_;
  core::GraphTable& table_;
  std::vector<core::NodeIndex> order_;
  std::vector<std::uint32_t> position_;   // per node; `absent` if not in the list
  std::vector<Ref> held_;                 // per node; empty if it is not held
  std::vector<core::NodeIndex> sources_;  // per node: what a new one copies
  bool begun_ = false;
  bool holds_all_ = false;
  bool disturbed_ = false;  // a callback changed the list since the last `rearrange`
};

}  // namespace onnxgraft::py
