#include "quant/passes.h"

#include "py/name_index.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::Ref;

namespace {

Ref run_pass(const Call& call, const Pass& pass) {
  PyObject* self = call[0];
  const Ref pattern = py::attribute(self, pass.pattern);
  const Ref replacement = py::attribute(self, pass.replacement);
  return py::call_method(self, names::replace_all, {call[1], pattern.get(), replacement.get()},
                         {{names::debug, call[2]}});
}

/// What the passes of one `apply` share: nothing where other code would run in between, be it a subclass's or that of
/// the stream which gets the debug lines.
Ref begin_run(const Call& call) {
  if (call[2] != Py_False || !py::defines_class_of(call.module, call[0])) return {};
  const Ref method = py::attribute(call[0], names::replace_all);
  PyObject* function = PyMethod_Check(method.get()) != 0 ? PyMethod_Function(method.get()) : method.get();
  const Ref begin = py::optional_attribute(function, names::begin_sharing);
  return begin ? py::call(begin.get(), {call[0], call[1]}) : Ref{};
}

Ref sum(const Ref& left, const Ref& right) { return py::checked(PyNumber_Add(left.get(), right.get())); }

Ref checked_count(Ref count) {
  if (count.get() == Py_None || PyLong_Check(count.get()) != 0) return count;
  py::raise(PyExc_TypeError, "Expected int, got %.200s", Py_TYPE(count.get())->tp_name);
}

}  // namespace

Ref run_passes(const Call& call, std::span<const Pass> passes, Counting counting) {
  py::forget_names();
  const Ref run = begin_run(call);
  Ref total = run_pass(call, passes.front());
  for (const Pass& pass : passes.subspan(1)) total = sum(total, run_pass(call, pass));
  return counting == Counting::checked ? checked_count(std::move(total)) : std::move(total);
}

Ref apply_listed_pairs(const Call& call) {
  py::forget_names();
  const Ref run = begin_run(call);
  PyObject* self = call[0];
  const Ref updated = py::checked(PySet_New(nullptr));
  const Ref pairs = py::call_method(self, names::get_subgraphs_to_replace);
  const Ref elements = py::iterator(pairs.get());
  Ref total = py::integer(0);
  while (const Ref element = py::next(elements.get())) {
    const auto [pattern, replacement] = py::unpack_pair(element.get());
    // Keywords go through the call, so each pass sees a dict of its own and all see the same set.
    const Ref count = py::call_method(self, names::replace_all, {call[1], pattern.get(), replacement.get()},
                                      {{names::debug, call[2]}, {names::conv_bias_updated, updated.get()}});
    total = sum(total, count);
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
