#include "quant/families/attributes.h"

#include "quant/numpy/names.h"

namespace onnxgraft::quant {

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

}  // namespace onnxgraft::quant
