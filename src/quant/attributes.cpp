#include "quant/attributes.h"

#include "quant/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

Ref first_attribute(PyObject* attributes, const InternedName& name) {
  const Ref elements = py::iterator(attributes);
  while (Ref element = py::next(elements.get())) {
    const Ref own_name = py::attribute(element.get(), names::name);
    if (py::check(PyObject_RichCompareBool(own_name.get(), name.get(), Py_EQ)) != 0) return element;
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

}  // namespace onnxgraft::quant
