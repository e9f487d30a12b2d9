// What a view says of initializers, and how it changes them.
#include <algorithm>
#include <functional>
#include <utility>

#include "py/message_list.h"
#include "py/name_index.h"
#include "py/session.h"
#include "quant/graph_view/graph_view.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Ref;

namespace {

Ref initializers_of(const Ref& graph) { return py::attribute(graph.get(), names::initializer); }

std::optional<Py_ssize_t> position_of(const Ref& graph, PyObject* initializers, PyObject* name) {
  return py::find_by_name(graph.get(), names::initializer, initializers, name);
}

bool stands_at(PyObject* initializers, Py_ssize_t position, PyObject* record) {
  return position >= 0 && py::item(initializers, position).get() == record;
}

/// A look-up that is not our own may return the record of another graph.
void refuse_stranger(PyObject* initializers, const InitializerChange& change) {
  if (py::check(PySequence_Contains(initializers, change.old_record)) != 0) return;
  py::raise(
      PyExc_ValueError,
      "get_init(): the record that it returned for %R is not in graph.initializer: it must be one of the graph's own",
      change.name);
}

}  // namespace

Ref GraphView::look_up(PyObject* names) {
  if (!waiting_.empty()) {
    // What waits is not found, and an error says how many initializers there are.
    const Ref elements = py::iterator(names);
    const Ref initializers = initializers_of(graph_);
    while (const Ref name = py::next(elements.get())) {
      if (waiting_.find(name.get()) == nullptr && position_of(graph_, initializers.get(), name.get())) continue;
      finish();
      break;
    }
  }
  return call_member(module(), names::transform_utilities, names::get_init, {graph_.get(), names});
}

Initializer GraphView::one_initializer(PyObject* names) {
  const Ref found = look_up(names);
  const auto [arrays, records] = py::unpack_pair(found.get());
  Ref array = py::unpack_one(arrays.get());
  return {std::move(array), py::unpack_one(records.get())};
}

Ref GraphView::one_array(PyObject* name) {
  const Ref found = look_up(py::tuple({name}).get());
  return py::unpack_one(py::unpack_pair(found.get()).first.get());
}

/// Null where the look-up has to be asked as it is written.
const GraphView::Told* GraphView::told(PyObject* name) {
  static const py::InternedName describe("describe");
  if (lasts_ != Lasts::round || !package_looks_up()) return nullptr;
  if (told_name_.get() == name) return &told_;
  const Ref look_up = member(module(), names::transform_utilities, names::get_init);
  const Ref description = py::call_method(look_up.get(), describe, {graph_.get(), name});
  if (description.get() != Py_None) {
    told_ = {py::item(description.get(), 0), py::item(description.get(), 1)};
  } else {
    const Initializer found = one_initializer(py::tuple({name}).get());
    told_ = {py::attribute(found.record.get(), names::data_type), py::attribute(found.array.get(), names::shape)};
  }
  told_name_ = Ref::borrow(name);
  return &told_;
}

Ref GraphView::element_type(PyObject* name) {
  if (const Told* known = told(name); known != nullptr) return known->type.copy();
  const Ref found = look_up(py::tuple({name}).get());
  const auto [arrays, records] = py::unpack_pair(found.get());
  return py::attribute(py::item(records.get(), 0).get(), names::data_type);
}

Ref GraphView::shape(PyObject* name) {
  if (const Told* known = told(name); known != nullptr) return known->shape.copy();
  return py::attribute(one_initializer(py::tuple({name}).get()).array.get(), names::shape);
}

bool GraphView::has_initializer(PyObject* name) {
  return waiting_.find(name) != nullptr || position_of(graph_, initializers_of(graph_).get(), name).has_value();
}

void GraphView::add(PyObject* list) { extend(initializers_of(graph_).get(), list); }

void GraphView::replace(std::span<const InitializerChange> changes) {
  const Ref initializers = initializers_of(graph_);
  std::vector<std::pair<Py_ssize_t, PyObject*>> old_ones;
  const Ref new_ones = py::checked(PyList_New(0));
  for (const InitializerChange& change : changes) {
    const auto position = position_of(graph_, initializers.get(), change.name);
    old_ones.emplace_back(position.value_or(-1), change.old_record);
    if (!stands_at(initializers.get(), old_ones.back().first, change.old_record)) {
      refuse_stranger(initializers.get(), change);
    }
    py::check(PyList_Append(new_ones.get(), change.new_record));
  }
  extend(initializers.get(), new_ones.get());
  // From the end, so that positions stay right.
  std::ranges::sort(old_ones, std::greater{}, &std::pair<Py_ssize_t, PyObject*>::first);
  for (const auto& [position, record] : old_ones) {
    // `remove` compares contents with every tensor before the wanted one; where the very record stands at the
    // position, deleting by position does the same without reading them.
    if (stands_at(initializers.get(), position, record)) {
      py::check(PyObject_DelItem(initializers.get(), py::integer(position).get()));
    } else {
      py::call_method(initializers.get(), names::remove, {record});
    }
  }
}

/// Not where somebody put a function of his own in the place of `get_init`, who does not know what waits and may want
/// to see every call.
bool GraphView::package_looks_up() const {
  return py::is_our_function(member(module(), names::transform_utilities, names::get_init).get());
}

bool GraphView::may_wait() {
  return lasts_ == Lasts::round && py::is_message_list(initializers_of(graph_).get()) && package_looks_up();
}

void GraphView::finish() {
  if (!waiting_.empty()) waiting_.write(initializers_of(graph_).get());
}

}  // namespace onnxgraft::quant
