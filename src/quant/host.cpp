#include "quant/host.h"

#include "quant/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

Ref global(PyObject* module, const InternedName& name) {
  PyObject* found = PyDict_GetItemWithError(PyModule_GetDict(module), name.get());
  if (found != nullptr) return Ref::borrow(found);
  if (PyErr_Occurred() != nullptr) throw py::PythonError{};
  py::raise(PyExc_NameError, "name '%U' is not defined", name.get());
}

Ref member(PyObject* module, const InternedName& owner, const InternedName& name) {
  return py::attribute(global(module, owner).get(), name);
}

Ref call_member(PyObject* module, const InternedName& owner, const InternedName& function,
                std::initializer_list<PyObject*> arguments) {
  return py::call_method(global(module, owner).get(), function, arguments);
}

Ref subscript(PyObject* mapping, PyObject* key) { return py::checked(PyObject_GetItem(mapping, key)); }
Ref subscript(PyObject* mapping, const InternedName& key) { return subscript(mapping, key.get()); }

Ref astype(PyObject* module, PyObject* array, const InternedName& type) {
  return py::call_method(array, names::astype, {member(module, names::np, type).get()});
}

Ref view(PyObject* module, PyObject* array, const InternedName& type) {
  return py::call_method(array, names::view, {member(module, names::np, type).get()});
}

Ref make_attribute(PyObject* module, const InternedName& name, PyObject* value) {
  return call_member(module, names::helper, names::make_attribute, {name.get(), value});
}

Ref mapped_node(PyObject* graph, PyObject* mapping, PyObject* key) {
  const Ref index = subscript(mapping, key);
  return subscript(py::attribute(graph, names::node).get(), index.get());
}

Ref mapped_node(PyObject* graph, PyObject* mapping, std::int64_t key) {
  return mapped_node(graph, mapping, py::integer(key).get());
}

bool has_op_type(PyObject* node, const InternedName& name) {
  const Ref op_type = py::attribute(node, names::op_type);
  return py::check(PyObject_RichCompareBool(op_type.get(), name.get(), Py_EQ)) != 0;
}

}  // namespace onnxgraft::quant
