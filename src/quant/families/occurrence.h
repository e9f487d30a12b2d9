// What callbacks ask of the occurrence that they were called for: attributes of its nodes, methods of the
// transformation, and the sentence that states why it is refused.
//
// Must not know the graph or a session's view. A subclass may override any method that is called; built-in ones see the
// same view of the graph as the callback. To get the sentences, pass `_replace_all_isomorphic_sub_graphs`, or the
// callback itself, a list as the keyword `refusal_reasons`; without it no sentence is made.
#pragma once

#include "py/function.h"

namespace onnxgraft::quant {

/// The first attribute of that name in a list of attributes; empty if there is none.
py::Ref first_attribute(PyObject* attributes, const py::InternedName& name);

/// A field ("f", "i" ...) of the first attribute of that name; empty if there is none. The field is read
/// whatever the attribute's type is.
py::Ref first_value(PyObject* attributes, const py::InternedName& name, const py::InternedName& field);

/// The attribute list of the node at that position of a list of nodes (from the end if negative).
py::Ref attributes_of(PyObject* nodes, Py_ssize_t position);

/// `self.<method>(*arguments, **keywords)`.
py::Ref call_own(const py::Call& call, const py::InternedName& method, std::initializer_list<PyObject*> arguments,
                 std::initializer_list<py::Keyword> keywords);

/// `super(<class of the callback>, self)._on_replace_subgraph(graph, replaced_nodes, node_mapping, links, **kwargs)`.
py::Ref inherited_callback(const py::Call& call, PyObject* links);

/// The caller's list; null if it gave none. Borrowed.
PyObject* wanted_reasons(const py::Call& call);

/// Appends what `words` returns, a `str`, to the caller's list if there is one.
template <class Words>
void give_reason(const py::Call& call, const Words& words) {
  PyObject* reasons = wanted_reasons(call);
  if (reasons != nullptr) py::check(PyList_Append(reasons, words().get()));
}

/// Gives the reason; False, for the callback to return.
template <class Words>
py::Ref refused(const py::Call& call, const Words& words) {
  give_reason(call, words);
  return py::boolean(false);
}

/// "Conv node 'conv_1'", or what the node writes if it has no name.
py::Ref node_words(PyObject* node);

/// Six digits of a number.
py::Ref number_words(PyObject* number);

}  // namespace onnxgraft::quant
