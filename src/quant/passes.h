// The two ways in which `apply` runs its (pattern, replacement) pairs, and the other methods that are the same
// for every class but for their data. A pair is named by its class attributes, which are read from the instance
// when the pass begins, so that a subclass may replace a list.
#pragma once

#include <span>

#include "py/function.h"

namespace onnxgraft::quant {

/// One (pattern, replacement) pair, by the names of the attributes that hold the lists.
struct Pass {
  py::InternedName pattern;
  py::InternedName replacement;
};

constexpr Pass pass(const char* pattern, const char* replacement) {
  return {py::InternedName(pattern), py::InternedName(replacement)};
}

/// How the counts of the passes become the result.
enum class Counting {
  checked,    // a result that is neither an integer nor None is a TypeError
  unchecked,  // handed on as it is
};

py::Ref run_passes(const py::Call& call, std::span<const Pass> passes, Counting counting);
py::Ref list_pairs(PyObject* self, std::span<const Pass> passes);

/// `apply(self, graph, debug=False)`: one pass per pair, in order; the counts added up.
template <const auto& passes, Counting counting = Counting::checked>
py::Ref apply_passes(const py::Call& call) {
  return run_passes(call, passes, counting);
}

/// `apply` of the pull-up family: the pairs come from `self._get_subgraphs_to_replace()`, and all passes share
/// one set of corrected biases.
py::Ref apply_listed_pairs(const py::Call& call);

/// `_get_subgraphs_to_replace(self)`: the pairs as a new list of tuples.
template <const auto& passes>
py::Ref listed_pairs(const py::Call& call) {
  return list_pairs(call[0], passes);
}

/// The body of the abstract `_get_subgraphs_to_replace`.
py::Ref no_pairs(const py::Call& call);

}  // namespace onnxgraft::quant
