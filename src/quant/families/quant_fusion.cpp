// Callback of `replace_quant`: two quantize nodes are merged only if they quantize alike.
//
// It changes nothing. A missing attribute refuses, whatever the other node has.
#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/names.h"

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

Ref missing_words(PyObject* nodes, Py_ssize_t position, const Ref& scale) {
  const Ref node = node_words(py::item(nodes, position).get());
  return py::checked(PyUnicode_FromFormat("%S has no attribute '%s'", node.get(), scale ? "offset" : "scale"));
}

Ref difference_words(PyObject* nodes, const char* what, const Ref& first, const Ref& second) {
  const Ref first_node = node_words(py::item(nodes, first_quantize).get());
  const Ref second_node = node_words(py::item(nodes, second_quantize).get());
  return py::checked(PyUnicode_FromFormat("%S has %s %S, %S has %S: more than 0.001 apart", first_node.get(), what,
                                          number_words(first.get()).get(), second_node.get(),
                                          number_words(second.get()).get()));
}

}  // namespace

Ref accept_equal_parameters(const Call& call, GraphView& /*view*/) {
  PyObject* nodes = call[callback::replaced_nodes];
  const Ref first = attributes_of(nodes, first_quantize);
  const Ref second = attributes_of(nodes, second_quantize);
  const Ref first_scale = first_value(first.get(), names::scale, names::f);
  const Ref first_offset = first_value(first.get(), names::offset, names::f);
  if (!first_scale || !first_offset) {
    return refused(call, [&] { return missing_words(nodes, first_quantize, first_scale); });
  }
  const Ref second_scale = first_value(second.get(), names::scale, names::f);
  const Ref second_offset = first_value(second.get(), names::offset, names::f);
  if (!second_scale || !second_offset) {
    return refused(call, [&] { return missing_words(nodes, second_quantize, second_scale); });
  }
  if (differ(first_scale, second_scale)) {
    return refused(call, [&] { return difference_words(nodes, "scale", first_scale, second_scale); });
  }
  if (differ(first_offset, second_offset)) {
    return refused(call, [&] { return difference_words(nodes, "offset", first_offset, second_offset); });
  }
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
