// Attributes of nodes: the first of a name counts, whatever follows it.
#pragma once

#include "py/objects.h"

namespace onnxgraft::quant {

/// The first attribute of that name in a list of attributes; empty if there is none.
py::Ref first_attribute(PyObject* attributes, const py::InternedName& name);

/// A field ("f", "i" ...) of the first attribute of that name; empty if there is none. The field is read
/// whatever the attribute's type is.
py::Ref first_value(PyObject* attributes, const py::InternedName& name, const py::InternedName& field);

/// The attribute list of the node at that position of a list of nodes (from the end if negative).
py::Ref attributes_of(PyObject* nodes, Py_ssize_t position);

}  // namespace onnxgraft::quant
