// What a view says about initializers, and how it changes them.
//
// Invariant: whatever fails on the way, no name is left without a record. Contents come from `get_init`, so that a
// replacement of it takes effect at once.
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

/// `tuple(tensor.dims)`, got by index: an iterator over protobuf's list ends in an IndexError, whose text is formatted.
Ref dims_of(const Ref& tensor) {
  static const py::InternedName dims("dims");
  const Ref list = py::attribute(tensor.get(), dims);
  Ref made = py::checked(PyTuple_New(py::length(list.get())));
  for (Py_ssize_t at = 0; at < PyTuple_GET_SIZE(made.get()); ++at) {
    PyTuple_SET_ITEM(made.get(), at, py::item(list.get(), at).release());
  }
  return made;
}

/// Whether the record itself holds its contents, as many bytes as the shape takes, of the element types that weights
/// have.
bool holds_contents(const Ref& tensor, std::int64_t type, const Ref& shape) {
  static const py::InternedName raw_data("raw_data");
  static const py::InternedName data_location("data_location");
  static const py::InternedName segment("segment");
  static const py::InternedName has_field("HasField");
  constexpr std::int64_t float32 = 1;
  constexpr std::int64_t int8 = 3;
  const Ref bytes = py::attribute(tensor.get(), raw_data);
  if ((type != float32 && type != int8) || PyBytes_CheckExact(bytes.get()) == 0) return false;
  auto rest = static_cast<std::int64_t>(PyBytes_GET_SIZE(bytes.get()));
  for (Py_ssize_t axis = 0; axis < PyTuple_GET_SIZE(shape.get()); ++axis) {
    const std::int64_t extent = py::integer_value(PyTuple_GET_ITEM(shape.get(), axis));
    if (extent <= 0 || rest % extent != 0) return false;
    rest /= extent;
  }
  return rest == (type == float32 ? 4 : 1) &&
         py::integer_value(py::attribute(tensor.get(), data_location).get()) == 0 &&
         !py::truth(py::call_method(tensor.get(), has_field, {segment.get()}).get());
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

/// As the record states them; none where only the look-up can tell, for instance because it would raise.
std::optional<GraphView::Stated> GraphView::stated(PyObject* name) const {
  static const py::InternedName to_array("to_array");
  if (lasts_ != Lasts::round || !package_looks_up()) return {};
  const Ref utilities = global(module(), names::transform_utilities);
  const Ref reader = py::attribute(py::attribute(utilities.get(), names::numpy_helper).get(), to_array);
  if (!py::is_written_in(reader.get(), "onnx.numpy_helper")) return {};
  const Ref initializers = initializers_of(graph_);
  const auto position = position_of(graph_, initializers.get(), name);
  if (!position) return {};
  const Ref tensor = py::item(initializers.get(), *position);
  Stated found{py::attribute(tensor.get(), names::data_type), dims_of(tensor)};
  if (!holds_contents(tensor, py::integer_value(found.type.get()), found.shape)) return {};
  return found;
}

Ref GraphView::element_type(PyObject* name) {
  if (auto known = stated(name)) return std::move(known->type);
  const Ref found = look_up(py::tuple({name}).get());
  const auto [arrays, records] = py::unpack_pair(found.get());
  return py::attribute(py::item(records.get(), 0).get(), names::data_type);
}

Ref GraphView::shape(PyObject* name) {
  if (auto known = stated(name)) return std::move(known->shape);
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
