#include "quant/initializers.h"

#include "py/name_index.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::Ref;

Ref get_init(PyObject* module, PyObject* graph, PyObject* names) {
  return call_member(module, names::transform_utilities, names::get_init, {graph, names});
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

void add_initializers(PyObject* graph, PyObject* list) {
  py::call_method(py::attribute(graph, names::initializer).get(), names::extend, {list});
}

bool has_initializer(PyObject* graph, PyObject* name) {
  return py::find_by_name(graph, names::initializer, py::attribute(graph, names::initializer).get(), name).has_value();
}

void remove_initializer(PyObject* graph, PyObject* name, PyObject* record) {
  const Ref initializers = py::attribute(graph, names::initializer);
  const std::optional<Py_ssize_t> position = py::find_by_name(graph, names::initializer, initializers.get(), name);
  // `remove` compares contents with every tensor in front of the wanted one; where the position is known and the
  // very record stands there, deleting by position does the same without reading them.
  if (position && py::item(initializers.get(), *position).get() == record) {
    py::check(PyObject_DelItem(initializers.get(), py::integer(*position).get()));
    return;
  }
  py::call_method(initializers.get(), names::remove, {record});
}

}  // namespace onnxgraft::quant
