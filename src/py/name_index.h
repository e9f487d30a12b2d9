// The position of a name in a graph's list of named records (its initializers, its value_info).
//
// Callers ask again and again while the list changes, and protobuf reports no changes. So hints are kept for the last
// few graphs and checked against the list at every use: an answer is always read from the list. The hints hold no
// graph, no record and no text, only hashes of names. Without them every look-up would read half of the list.
//
// The first of equal names counts. With duplicate names (invalid ONNX) the list is read each time once the hints have
// seen a duplicate. They can miss one that appears later, by renaming an element before the first, or in exchange for
// at least as many elements removed there; then a look-up can return the later duplicate.
#pragma once

#include <optional>

#include "py/objects.h"

namespace onnxgraft::py {

/// Position of the first element of `list` whose `name` equals `name`, if there is one. `owner` is the object
/// that the list belongs to, `field` the list's name there: the owner's address and that name identify the list.
std::optional<Py_ssize_t> find_by_name(PyObject* owner, const InternedName& field, PyObject* list, PyObject* name);

/// Forgets all hints of the module. A graph may die and another one get its address. Callers that know where a new use
/// begins call this, so that hints of the dead graph are not used for the new one.
void forget_names() noexcept;

}  // namespace onnxgraft::py
