// Why a callback refuses an occurrence, in a sentence for a caller who asks.
//
// Whoever wants to know gives `_replace_all_isomorphic_sub_graphs`, or the callback itself, a list as the keyword
// `refusal_reasons`. Without it no sentence is made.
#pragma once

#include "py/function.h"

namespace onnxgraft::quant {

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
