// The module's own names, looked up when they are needed: what a test or a host assigns to `np` or
// `transform_utilities.get_init` takes effect at once.
//
// Families call NumPy and onnx only through this file.
#pragma once

#include <initializer_list>

#include "py/objects.h"

namespace onnxgraft::quant {

/// A name of the module (NameError if it was deleted).
py::Ref global(PyObject* module, const py::InternedName& name);

/// `module.owner.name`, for example the element type `np.int8`.
py::Ref member(PyObject* module, const py::InternedName& owner, const py::InternedName& name);

/// Calls `module.owner.function(...)`, for example `helper.make_attribute(...)`.
py::Ref call_member(PyObject* module, const py::InternedName& owner, const py::InternedName& function,
                    std::initializer_list<PyObject*> arguments);

/// `mapping[key]` for any mapping.
py::Ref subscript(PyObject* mapping, PyObject* key);
py::Ref subscript(PyObject* mapping, const py::InternedName& key);

/// `array.astype(np.<type>)`.
py::Ref astype(PyObject* module, PyObject* array, const py::InternedName& type);
/// `array.view(np.<type>)`: the same bytes read as another element type.
py::Ref view(PyObject* module, PyObject* array, const py::InternedName& type);

/// `numpy_helper.from_array(array, name)`.
py::Ref from_array(PyObject* module, PyObject* array, PyObject* name);

/// `helper.make_attribute(name, value)`.
py::Ref make_attribute(PyObject* module, const py::InternedName& name, PyObject* value);

/// `list.extend(messages)` for a repeated message field; `messages` is a tuple or a list.
void extend(PyObject* list, PyObject* messages);

/// `op_type == name` without making an object for the answer.
bool has_op_type(PyObject* node, const py::InternedName& name);

}  // namespace onnxgraft::quant
