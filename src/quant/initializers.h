// Reading and replacing initializers of a graph.
#pragma once

#include <initializer_list>
#include <span>

#include "py/objects.h"
#include "quant/host.h"

namespace onnxgraft::quant {

/// `transform_utilities.get_init(graph, names)`, the pair (arrays, records) as it comes.
py::Ref get_init(PyObject* module, PyObject* graph, PyObject* names);

/// Whether `get_init` promises to answer alike when it is asked twice: it is the package's own.
bool look_up_is_repeatable(PyObject* module);

/// One initializer: its contents and its record.
struct Initializer {
  py::Ref array;
  py::Ref record;
};

/// `get_init(graph, names)` where `names` holds one name: both halves unpacked as exactly one element.
Initializer one_initializer(PyObject* module, PyObject* graph, PyObject* names);

/// The contents alone: the first half unpacked as exactly one element, the second not looked at.
py::Ref one_array(PyObject* module, PyObject* graph, PyObject* name);

/// `numpy_helper.from_array(array, name)`.
py::Ref from_array(PyObject* module, PyObject* array, PyObject* name);

/// Appends the records to the graph's initializer list, in one step.
void add_initializers(PyObject* graph, std::initializer_list<PyObject*> records);
void add_initializers(PyObject* graph, PyObject* list);

/// Whether an initializer of that name is in the graph, or will be at the end of the round.
bool has_initializer(PyObject* graph, PyObject* name);

/// An initializer that gets other contents, in a new record of the same name.
struct InitializerChange {
  PyObject* name;
  PyObject* old_record;
  PyObject* new_record;
};

/// Appends the new records, then takes the old ones out: whatever fails on the way, no name is left without a record.
/// ValueError, and nothing is changed, if the list holds neither an old record itself nor one of equal contents.
void replace_initializers(PyObject* graph, std::span<const InitializerChange> changes);

}  // namespace onnxgraft::quant
