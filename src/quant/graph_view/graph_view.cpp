// Readers, writers and names of a graph, by walking or from a reading.
//
// Invariant: an answer from the reading is tested at the node itself, so both ways give the same nodes in the same
// order. Must not know transformations.
#include "quant/graph_view/graph_view.h"

#include <algorithm>
#include <ranges>

#include "core/rule.h"
#include "py/graph_reader.h"
#include "py/message_list.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

namespace {

/// Element by element: a repeated field's own membership test takes several times as long.
bool has(const Ref& node, const InternedName& field, PyObject* tensor) {
  const Ref list = py::attribute(node.get(), field);
  const Py_ssize_t count = py::length(list.get());
  for (Py_ssize_t index = 0; index < count; ++index) {
    if (py::equal(py::item(list.get(), index).get(), tensor)) return true;
  }
  return false;
}

template <class Visit>
void for_each(PyObject* list, Visit visit) {
  const Ref elements = py::iterator(list);
  while (Ref element = py::next(elements.get())) {
    if (visit(std::move(element))) return;
  }
}

}  // namespace

GraphView::GraphView(PyObject* module, PyObject* graph, Lasts lasts)
    : module_(Ref::borrow(module)),
      graph_(Ref::borrow(graph)),
      nodes_(py::attribute(graph, names::node)),
      lasts_(lasts) {}

Ref GraphView::mapped_node(PyObject* mapping, PyObject* key) const {
  return subscript(nodes_.get(), subscript(mapping, key).get());
}

Ref GraphView::mapped_node(PyObject* mapping, std::int64_t key) const {
  return mapped_node(mapping, py::integer(key).get());
}

/// The names are the ones that the matcher knows of a graph, so that both call the same names new.
const py::GraphReading& GraphView::reading() {
  if (reading_ && std::cmp_equal(reading_->table.original_count(), py::length(nodes_.get()))) return *reading_;
  auto reading = std::make_unique<py::GraphReading>();
  py::GraphReader reader(graph_.get(), *reading);
  reader.read_operators(core::Rule{});  // which asks for no node, so that all of them are read
  reader.read_links();
  reader.read_names();
  for (const std::string& name : new_inputs_) reading->table.names.intern(name);
  written_twice_.clear();
  for (core::NodeIndex node = 0; node < reading->table.node_count(); ++node) {
    for (const core::NameId name : reading->table.outputs(node)) {
      if (reading->table.producer(name) != node) written_twice_.insert(name);
    }
  }
  reading_ = std::move(reading);
  return *reading_;
}

/// The reading leaves empty names out, which name no tensor.
bool GraphView::is_indexed(PyObject* tensor) const {
  if (lasts_ != Lasts::round || PyUnicode_CheckExact(tensor) == 0) return false;
  const std::string name(py::utf8(tensor));
  return !name.empty() && !new_inputs_.contains(name);
}

std::vector<Ref> GraphView::readers(const InternedName& op, PyObject* tensor) {
  std::vector<Ref> found;
  const auto add_if_reader = [&](Ref node) {
    if (has_op_type(node.get(), op) && has(node, names::input, tensor)) found.push_back(std::move(node));
    return false;
  };
  if (!is_indexed(tensor)) {
    for_each(nodes_.get(), add_if_reader);
    return found;
  }
  const core::GraphTable& table = reading().table;
  const auto name = table.names.find(py::utf8(tensor));
  if (!name) return found;
  for (const core::NodeIndex at : table.readers(*name)) add_if_reader(py::item(nodes_.get(), at));
  return found;
}

Ref GraphView::first_writer(PyObject* tensor) {
  Ref found;
  const auto is_writer = [&](Ref node) {
    const bool writes = has(node, names::output, tensor);
    if (writes) found = std::move(node);
    return writes;
  };
  if (is_indexed(tensor)) {
    const core::GraphTable& table = reading().table;
    const auto name = table.names.find(py::utf8(tensor));
    const core::NodeIndex at = name ? table.producer(*name) : core::no_index;
    if (at == core::no_index || is_writer(py::item(nodes_.get(), at))) return found;
  }
  for_each(nodes_.get(), is_writer);
  return found;
}

bool GraphView::is_written_by(const InternedName& op, PyObject* tensor) {
  if (is_indexed(tensor)) {
    const core::Names& names = reading().table.names;
    const auto name = names.find(py::utf8(tensor));
    if (!name) return false;
    if (!written_twice_.contains(*name)) {
      const Ref writer = first_writer(tensor);
      return writer && has_op_type(writer.get(), op);
    }
  }
  bool found = false;
  for_each(nodes_.get(), [&](const Ref& node) {
    found = has_op_type(node.get(), op) && has(node, names::output, tensor);
    return found;
  });
  return found;
}

std::string GraphView::fresh_name(const std::string& wanted) {
  std::string name = wanted;
  for (std::size_t number = 1; is_taken(name); ++number) name = wanted + "_" + std::to_string(number);
  return name;
}

void GraphView::add_attributes(PyObject* node, Ref (*make)(PyObject* module)) {
  static const InternedName merge("MergeFromString");
  static const InternedName serialize("SerializeToString");
  const Ref make_attribute = member(module(), names::helper, names::make_attribute);
  if (lasts_ != Lasts::round || !py::is_message_list(nodes_.get()) ||
      !py::is_written_in(make_attribute.get(), "onnx.helper")) {
    extend(py::attribute(node, names::attribute).get(), make(module()).get());
    return;
  }
  if (maker_ != make) {
    const Ref empty = py::call(reinterpret_cast<PyObject*>(Py_TYPE(node)), {});
    extend(py::attribute(empty.get(), names::attribute).get(), make(module()).get());
    attributes_ = py::call_method(empty.get(), serialize);
    maker_ = make;
  }
  py::call_method(node, merge, {attributes_.get()});
}

void GraphView::note_new_input(const std::string& name) {
  new_inputs_.insert(name);
  if (reading_) reading_->table.names.intern(name);
}

}  // namespace onnxgraft::quant
