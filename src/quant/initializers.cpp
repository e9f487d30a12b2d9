#include "quant/initializers.h"

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "py/name_index.h"
#include "quant/names.h"
#include "quant/round.h"

namespace onnxgraft::quant {

using py::Ref;

Ref get_init(PyObject* module, PyObject* graph, PyObject* names) {
  return call_member(module, names::transform_utilities, names::get_init, {graph, names});
}

bool look_up_is_repeatable(PyObject* module) {
  static const py::InternedName repeatable("repeatable");
  const Ref get_init = member(module, names::transform_utilities, names::get_init);
  const Ref promise = py::optional_attribute(get_init.get(), repeatable);
  return promise && py::truth(promise.get());
}

Initializer one_initializer(PyObject* module, PyObject* graph, PyObject* names) {
  const Ref found = get_init(module, graph, names);
  const auto [arrays, records] = py::unpack_pair(found.get());
  Ref array = py::unpack_one(arrays.get());
  return {std::move(array), py::unpack_one(records.get())};
}

Ref one_array(PyObject* module, PyObject* graph, PyObject* name) {
  const Ref found = get_init(module, graph, py::tuple({name}).get());
  return py::unpack_one(py::unpack_pair(found.get()).first.get());
}

Ref from_array(PyObject* module, PyObject* array, PyObject* name) {
  return call_member(module, names::numpy_helper, names::from_array, {array, name});
}

void add_initializers(PyObject* graph, std::initializer_list<PyObject*> records) {
  add_initializers(graph, py::tuple(records).get());
}

void add_initializers(PyObject* graph, PyObject* list) { extend(py::attribute(graph, names::initializer).get(), list); }

bool has_initializer(PyObject* graph, PyObject* name) {
  if (Round* round = Round::on(graph); round != nullptr && round->pending().find(name) != nullptr) return true;
  return py::find_by_name(graph, names::initializer, py::attribute(graph, names::initializer).get(), name).has_value();
}

namespace {

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

void replace_initializers(PyObject* graph, std::span<const InitializerChange> changes) {
  const Ref initializers = py::attribute(graph, names::initializer);
  std::vector<std::pair<Py_ssize_t, PyObject*>> old_ones;
  const Ref new_ones = py::checked(PyList_New(0));
  for (const InitializerChange& change : changes) {
    const auto position = py::find_by_name(graph, names::initializer, initializers.get(), change.name);
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
    // `remove` compares contents with every tensor in front of the wanted one; where the very record stands at the
    // position, deleting by position does the same without reading them.
    if (stands_at(initializers.get(), position, record)) {
      py::check(PyObject_DelItem(initializers.get(), py::integer(position).get()));
    } else {
      py::call_method(initializers.get(), names::remove, {record});
    }
  }
}

}  // namespace onnxgraft::quant
