// The graph as callbacks see it: who reads a tensor, who writes it, which names are taken, what initializers hold.
//
// A view of one call walks over the nodes. A view of a round, in which nodes are not added, moved or removed (see
// py/session.h), indexes them at the first question. What it finds it checks at the node itself. That makes rounds
// linear that would be quadratic: 4,000 pull-ups take 0.2 s instead of 9 s.
//
// In a round, corrected biases wait for its end: taking each old one out of the middle of protobuf's list would move
// all that stand after it. Off if a replacement of the package's function looks initializers up.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "py/function.h"
#include "py/graph_reading.h"
#include "quant/graph_view/waiting_initializers.h"
#include "quant/numpy/host.h"

namespace onnxgraft::quant {

/// One initializer: its contents and its record.
struct Initializer {
  py::Ref array;
  py::Ref record;
};

/// An initializer that gets other contents, in a new record of the same name.
struct InitializerChange {
  PyObject* name;
  PyObject* old_record;
  PyObject* new_record;
};

class GraphView : public py::Sharing {
 public:
  enum class Lasts { call, round };

  GraphView(PyObject* module, PyObject* graph, Lasts lasts);

  [[nodiscard]] PyObject* module() const { return module_.get(); }
  [[nodiscard]] PyObject* graph() const { return graph_.get(); }
  [[nodiscard]] PyObject* nodes() const { return nodes_.get(); }
  /// The node at the position that the mapping has under the key.
  [[nodiscard]] py::Ref mapped_node(PyObject* mapping, PyObject* key) const;
  [[nodiscard]] py::Ref mapped_node(PyObject* mapping, std::int64_t key) const;

  /// Every node of that operator that has the tensor among its inputs, in graph order.
  std::vector<py::Ref> readers(const py::InternedName& op, PyObject* tensor);
  /// The first node that writes the tensor; empty if none does.
  py::Ref first_writer(PyObject* tensor);
  /// Whether any node of that operator writes the tensor.
  bool is_written_by(const py::InternedName& op, PyObject* tensor);
  /// The name itself if nothing in the graph or in a nested body has it, else with the lowest number that makes it new.
  std::string fresh_name(const std::string& wanted);

  /// `transform_utilities.get_init(graph, names)`, the pair (arrays, records) as it comes.
  py::Ref look_up(PyObject* names);
  /// The same where `names` holds one name: both halves unpacked as exactly one element.
  Initializer one_initializer(PyObject* names);
  /// The contents alone: the first half unpacked as exactly one element, the second not looked at.
  py::Ref one_array(PyObject* name);
  // In a round no array is made where the record states type and shape: an eighth of the time of `quant_conv`, a
  // quarter where all is refused. Off if a replacement of the package's function looks initializers up.
  /// The element type, from the first record of a look-up of this name.
  py::Ref element_type(PyObject* name);
  /// The shape of its one array.
  py::Ref shape(PyObject* name);
  /// Whether an initializer of that name is in the graph, or will be at the end of the round.
  bool has_initializer(PyObject* name);

  /// Appends the records to the graph's initializer list, in one step.
  void add(PyObject* list);
  void add(std::initializer_list<PyObject*> records) { add(py::tuple(records).get()); }
  /// Appends the new records, then takes the old ones out: whatever fails on the way, no name is left without a record.
  /// ValueError, and nothing is changed, if the list holds neither an old record itself nor one of equal contents.
  void replace(std::span<const InitializerChange> changes);

  /// Gives a node the attributes that `make` returns, a tuple. In a round they are made once, unless somebody put a
  /// function of his own in the place of `make_attribute`: a fifth of the time of small weights.
  void add_attributes(PyObject* node, py::Ref (*make)(PyObject* module));

  /// Whether changes of initializers may wait for the end of the round.
  bool may_wait();
  [[nodiscard]] WaitingInitializers& waiting() noexcept { return waiting_; }
  /// Notes a name that a new initializer has, and that becomes an input of nodes.
  void note_new_input(const std::string& name);
  void finish() override;

 private:
  const py::GraphReading& reading();
  [[nodiscard]] bool is_indexed(PyObject* tensor) const;
  bool is_taken(const std::string& name) { return reading().table.names.find(name).has_value(); }
  [[nodiscard]] bool package_looks_up() const;
  struct Stated {
    py::Ref type;   // code of the element type
    py::Ref shape;  // tuple
  };
  [[nodiscard]] std::optional<Stated> stated(PyObject* name) const;

  py::Ref module_;
  py::Ref graph_;
  py::Ref nodes_;
  Lasts lasts_;
  std::unique_ptr<py::GraphReading> reading_;
  std::unordered_set<core::NameId> written_twice_;  // of the reading; no valid graph has any
  std::unordered_set<std::string> new_inputs_;      // that the reading's links do not show
  WaitingInitializers waiting_;
  py::Ref attributes_;  // as bytes, made by
  py::Ref (*maker_)(PyObject* module) = nullptr;
};

/// A callback's body that works with a view: that of the session, or one for this call.
template <py::Ref (*body)(const py::Call&, GraphView&)>
py::Ref with_view(const py::Call& call) {
  auto* shared = static_cast<GraphView*>(call.sharing);
  if (shared != nullptr && shared->graph() == call[1]) return body(call, *shared);
  GraphView view(call.module, call[1], GraphView::Lasts::call);
  return body(call, view);
}

}  // namespace onnxgraft::quant
