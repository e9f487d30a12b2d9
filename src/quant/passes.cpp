// Runs the pairs of a class, one pass after the other, and adds their counts up.
//
// Lists are read from the instance, so that a subclass may replace them. Must not know what a pair says.
#include "quant/passes.h"

#include "py/name_index.h"
#include "py/session.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::Ref;

namespace {

/// The method that runs a pass, for all passes of one `apply`. Where nothing comes between two passes, not even a debug
/// line, they share what they read.
class PassMethod {
 public:
  PassMethod(const Call& call, bool nothing_between) : self_(call[0]) {
    if (!nothing_between || call[2] != Py_False) return;
    session_ = py::begin_session(py::attribute(self_, names::replace_all).get(), call[1]);
  }

  /// `keywords`: a dict.
  Ref operator()(PyObject* graph, const Ref& pattern, const Ref& replacement, const Ref& keywords) const {
    const Ref method = session_ ? Ref::borrow(session_.get()) : py::attribute(self_, names::replace_all);
    return py::checked(
        PyObject_Call(method.get(), py::tuple({graph, pattern.get(), replacement.get()}).get(), keywords.get()));
  }

 private:
  PyObject* self_;
  Ref session_;
};

Ref sum(const Ref& left, const Ref& right) { return py::checked(PyNumber_Add(left.get(), right.get())); }

Ref keywords(const Call& call) {
  Ref made = py::checked(PyDict_New());
  py::check(PyDict_SetItem(made.get(), names::debug.get(), call[2]));
  return made;
}

Ref checked_count(Ref count) {
  if (count.get() == Py_None || PyLong_Check(count.get()) != 0) return count;
  py::raise(PyExc_TypeError, "Expected int, got %.200s", Py_TYPE(count.get())->tp_name);
}

}  // namespace

Ref run_passes(const Call& call, std::span<const Pass> passes, Counting counting) {
  py::forget_names();
  const PassMethod run(call, true);
  Ref total;
  for (const Pass& pass : passes) {
    const Ref pattern = py::attribute(call[0], pass.pattern);
    const Ref replacement = py::attribute(call[0], pass.replacement);
    const Ref count = run(call[1], pattern, replacement, keywords(call));
    total = total ? sum(total, count) : Ref::borrow(count.get());
  }
  return counting == Counting::checked ? checked_count(std::move(total)) : std::move(total);
}

Ref apply_listed_pairs(const Call& call) {
  py::forget_names();
  const Ref updated = py::checked(PySet_New(nullptr));
  const Ref pairs = py::call_method(call[0], names::get_subgraphs_to_replace);
  const PassMethod run(call, PyList_CheckExact(pairs.get()) != 0 || PyTuple_CheckExact(pairs.get()) != 0);
  const Ref elements = py::iterator(pairs.get());
  Ref total = py::integer(0);
  while (const Ref element = py::next(elements.get())) {
    const auto [pattern, replacement] = py::unpack_pair(element.get());
    // Each pass gets a dict of its own, and all of them the same set.
    const Ref extra = keywords(call);
    py::check(PyDict_SetItem(extra.get(), names::conv_bias_updated.get(), updated.get()));
    total = sum(total, run(call[1], pattern, replacement, extra));
  }
  return checked_count(std::move(total));
}

Ref list_pairs(PyObject* self, std::span<const Pass> passes) {
  Ref pairs = py::checked(PyList_New(0));
  for (const Pass& pass : passes) {
    const Ref pattern = py::attribute(self, pass.pattern);
    const Ref replacement = py::attribute(self, pass.replacement);
    py::check(PyList_Append(pairs.get(), py::tuple({pattern.get(), replacement.get()}).get()));
  }
  return pairs;
}

Ref no_pairs(const Call& /*call*/) { return py::none(); }

}  // namespace onnxgraft::quant
