// Calls of NumPy and onnx through the module's own names.
//
// Nothing is cached: each call looks its function up. Must not know graphs.
#include "quant/numpy/host.h"

#include "py/guard.h"
#include "py/message_list.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

namespace {

/// Takes a message off again that was added and could not be filled.
void remove_last(PyObject* list) {
  const py::SavedError saved;
  py::guarded_status([&] { py::check(PyObject_DelItem(list, py::integer(-1).get())); });
  PyErr_Clear();
}

}  // namespace

void extend(PyObject* list, PyObject* messages) {
  static const InternedName add("add");
  static const InternedName copy_from("CopyFrom");
  if (!py::is_message_list(list)) {
    py::call_method(list, names::extend, {messages});
    return;
  }
  // The list's own `extend` encodes and decodes each message: three copies of a tensor instead of one.
  const Py_ssize_t count = PySequence_Fast_GET_SIZE(messages);
  for (Py_ssize_t index = 0; index < count; ++index) {
    const Ref message = py::call_method(list, add);
    try {
      py::call_method(message.get(), copy_from, {PySequence_Fast_GET_ITEM(messages, index)});
    } catch (const py::PythonError&) {
      remove_last(list);
      throw;
    }
  }
}

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

Ref from_array(PyObject* module, PyObject* array, PyObject* name) {
  return call_member(module, names::numpy_helper, names::from_array, {array, name});
}

bool has_op_type(PyObject* node, const InternedName& name) {
  return py::equal(py::attribute(node, names::op_type).get(), name.get());
}

}  // namespace onnxgraft::quant
