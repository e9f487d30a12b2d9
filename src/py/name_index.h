// Where the element of a given name stands in a graph's list of named records (its initializers, its value_info).
//
// Callers ask again and again while the list changes under them, and the list tells nobody about a change. So
// hints are kept for the last few graphs and tested at every use against the list itself: an answer is always
// read from the list. The hints hold no graph, no record and no text, only hashes of names.
//
// The first of equal names counts. Short lists are walked, and so are those in which the hints met a name twice, for
// as long as it stands there twice. What can go unseen is how a second element of a name comes into a list in which all
// names differed: by renaming an element before the first one, or in exchange for at least as many that went there. An
// exchange at a place that is not read leaves all else as it was, so only a look-up that reads every name before its
// answer could tell, and would cost time in proportion to the graph.
#pragma once

#include <optional>

#include "py/objects.h"

namespace onnxgraft::py {

/// Position of the first element of `list` whose `name` equals `name`, if there is one. `owner` is the object
/// that the list belongs to, `field` the list's name there: its address and the name tell one list from another.
std::optional<Py_ssize_t> find_by_name(PyObject* owner, const InternedName& field, PyObject* list, PyObject* name);

/// Forgets all hints of the module. Between two uses a graph may die and another one come to its address; whoever
/// knows where a new use begins says so, and then nothing old is believed.
void forget_names() noexcept;

}  // namespace onnxgraft::py
