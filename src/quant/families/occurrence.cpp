// Attributes, calls of methods and words, for all callbacks alike.
//
// No function here writes to the graph. What only one callback needs is in that callback's file.
#include "quant/families/occurrence.h"

#include <array>
#include <cstdio>

#include "py/session.h"
#include "quant/families/callbacks.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

Ref first_attribute(PyObject* attributes, const InternedName& name) {
  const Ref elements = py::iterator(attributes);
  while (Ref element = py::next(elements.get())) {
    const Ref own_name = py::attribute(element.get(), names::name);
    if (py::equal(own_name.get(), name.get())) return element;
  }
  return {};
}

Ref first_value(PyObject* attributes, const InternedName& name, const InternedName& field) {
  const Ref found = first_attribute(attributes, name);
  return found ? py::attribute(found.get(), field) : Ref{};
}

Ref attributes_of(PyObject* nodes, Py_ssize_t position) {
  const Ref node = py::checked(PyObject_GetItem(nodes, py::integer(position).get()));
  return py::attribute(node.get(), names::attribute);
}

Ref call_own(const Call& call, const py::InternedName& method, std::initializer_list<PyObject*> arguments,
             std::initializer_list<py::Keyword> keywords) {
  const Ref named = py::checked(PyDict_New());
  for (const py::Keyword& keyword : keywords) {
    py::check(PyDict_SetItem(named.get(), keyword.name.get(), keyword.value));
  }
  return py::call_sharing(py::attribute(call[callback::self], method).get(), arguments, named.get(), call.sharing);
}

Ref inherited_callback(const Call& call, PyObject* links) {
  const Ref method = py::inherited_method(call.owner, call[callback::self], "_on_replace_subgraph");
  return py::call_sharing(method.get(),
                          {call[callback::graph], call[callback::replaced_nodes], call[callback::node_mapping], links},
                          call.keywords, call.sharing);
}

PyObject* wanted_reasons(const py::Call& call) {
  static const InternedName refusal_reasons("refusal_reasons");
  if (call.keywords == nullptr) return nullptr;
  PyObject* reasons = PyDict_GetItemWithError(call.keywords, refusal_reasons.get());
  if (reasons == nullptr && PyErr_Occurred() != nullptr) throw py::PythonError{};
  return reasons != nullptr && PyList_Check(reasons) != 0 ? reasons : nullptr;
}

Ref node_words(PyObject* node) {
  const Ref op_type = py::attribute(node, names::op_type);
  const Ref name = py::attribute(node, names::name);
  if (py::truth(name.get())) return py::checked(PyUnicode_FromFormat("%S node '%S'", op_type.get(), name.get()));
  const Ref outputs = py::attribute(node, names::output);
  return py::checked(PyUnicode_FromFormat("the %S node that writes '%S'", op_type.get(),
                                          py::length(outputs.get()) == 0 ? Py_None : py::item(outputs.get(), 0).get()));
}

Ref number_words(PyObject* number) {
  const double value = PyFloat_AsDouble(number);
  if (value == -1.0 && PyErr_Occurred() != nullptr) throw py::PythonError{};
  std::array<char, 32> buffer{};
  const int size = std::snprintf(buffer.data(), buffer.size(), "%.6g", value);
  return py::text({buffer.data(), static_cast<std::size_t>(size)});
}

}  // namespace onnxgraft::quant
