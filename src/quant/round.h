// What the callbacks of one round look up in the graph again and again: who reads a tensor, who writes it, which
// names are taken.
//
// A pass splices all occurrences before the first callback of a round, and a callback that keeps nodes leaves the
// list as it is: for so long, a position that was read once stays right. The pass says when a round begins and ends
// (`begin_round`); it does so only for callbacks whose promise it believes. A callback outside of a round, such as
// one that a subclass calls, walks over the graph.
#pragma once

#include <cstddef>
#include <optional>
#include <unordered_set>
#include <vector>

#include "py/objects.h"
#include "quant/name_positions.h"
#include "quant/pending_initializers.h"

namespace onnxgraft::quant {

/// Begins a round on the graph; it ends when the object that comes back goes away.
py::Ref begin_round(PyObject* transformation, PyObject* graph);

/// Writes what the round on the graph has collected. To be called behind the last callback, and again after an error.
void finish_round(PyObject* graph);

class Round {
 public:
  explicit Round(PyObject* graph) : graph_(py::Ref::borrow(graph)) {}

  /// The round under way on the graph; null if there is none.
  static Round* on(PyObject* graph) noexcept;

  /// The answer to a question about the transformation that stays the same for the whole round; asked once.
  template <class Question>
  bool remember(PyObject* transformation, Question question) {
    if (asked_about_ != transformation) {
      answer_ = question();
      asked_about_ = transformation;
    }
    return answer_;
  }

  /// Every `Conv` that may read the tensor, in list order; none if only a walk can tell.
  std::optional<std::vector<py::Ref>> possible_readers(PyObject* nodes, PyObject* tensor);
  /// Every node that may write the tensor, in list order.
  std::vector<py::Ref> possible_writers(PyObject* nodes, PyObject* tensor);
  /// False if nothing in the graph defines a tensor of that name.
  bool may_be_tensor_name(PyObject* name);

  /// The attributes of a new quantize node as bytes, for who makes such nodes; empty at first.
  py::Ref& quantize_attributes() noexcept { return quantize_attributes_; }

  /// A callback has given a convolution an initializer as its bias; `is_new` if it has appended it to the list.
  void note_bias(PyObject* name, bool is_new);

  /// Whether new initializers may wait: not where somebody else looks initializers up, or keeps the list.
  bool may_put_off(PyObject* module);
  /// Initializers that wait for the end of the round.
  [[nodiscard]] PendingInitializers& pending() noexcept { return pending_; }
  /// Puts them into the graph now.
  void write_pending();

  [[nodiscard]] PyObject* graph() const noexcept { return graph_.get(); }

 private:
  void read_readers(PyObject* nodes);
  void read_names(PyObject* nodes);

  py::Ref graph_;
  PyObject* asked_about_ = nullptr;
  bool answer_ = false;
  NamePositions readers_;         // inputs of all `Conv` nodes
  NamePositions names_;           // whatever defines a tensor; with a position if it is a node's output
  Py_ssize_t nodes_read_ = -1;    // length of the list in `readers_`
  Py_ssize_t nodes_named_ = -1;   // length of the list in `names_`
  Py_ssize_t initializers_ = -1;  // number of those in `names_` and since
  py::Ref quantize_attributes_;
  PendingInitializers pending_;
  std::optional<bool> may_put_off_;
  std::unordered_set<NamePositions::Hash> biases_;  // given since the round began
};

}  // namespace onnxgraft::quant
