// Callback of `replace_quant`: two quantize nodes are merged only where they quantize alike.
#include "quant/attributes.h"
#include "quant/callbacks.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::Ref;

namespace {

constexpr double tolerance = 0.001;
constexpr Py_ssize_t first_quantize = 0;
constexpr Py_ssize_t second_quantize = 2;

/// abs(left - right) > tolerance, on whatever the fields hold.
bool differ(const Ref& left, const Ref& right) {
  const Ref difference = py::checked(PyNumber_Subtract(left.get(), right.get()));
  const Ref distance = py::checked(PyNumber_Absolute(difference.get()));
  const Ref bound = py::checked(PyFloat_FromDouble(tolerance));
  return py::check(PyObject_RichCompareBool(distance.get(), bound.get(), Py_GT)) != 0;
}

}  // namespace

Ref accept_equal_parameters(const Call& call) {
  PyObject* nodes = call[callback::replaced_nodes];
  const Ref first = attributes_of(nodes, first_quantize);
  const Ref second = attributes_of(nodes, second_quantize);
  const Ref first_scale = first_value(first.get(), names::scale, names::f);
  const Ref first_offset = first_value(first.get(), names::offset, names::f);
  if (!first_scale || !first_offset) return py::boolean(false);
  const Ref second_scale = first_value(second.get(), names::scale, names::f);
  const Ref second_offset = first_value(second.get(), names::offset, names::f);
  if (!second_scale || !second_offset) return py::boolean(false);
  return py::boolean(!differ(first_scale, second_scale) && !differ(first_offset, second_offset));
}

}  // namespace onnxgraft::quant
