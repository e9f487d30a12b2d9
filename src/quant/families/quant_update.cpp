// Callback of `update_tesselquant`. With r = (scale after the concatenation) / (scale before the
// convolution), the convolution's input is now r times what it was:
//   bias' = trunc(bias * r)     dequantize scale' = scale / r
#include <array>

#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"
#include "quant/numpy/scales.h"

namespace onnxgraft::quant {

using py::Call;
using py::Ref;

namespace {

constexpr Py_ssize_t quantize_before = 0;
constexpr Py_ssize_t quantize_after = 4;
constexpr std::int64_t conv_position = 1;
constexpr std::int64_t dequantize_position = 2;
constexpr Py_ssize_t bias_input = 2;
constexpr Py_ssize_t scale_input = 1;

Ref scale_of(PyObject* nodes, Py_ssize_t position) {
  Ref scale = first_value(attributes_of(nodes, position).get(), names::scale, names::f);
  return scale ? std::move(scale) : py::checked(PyFloat_FromDouble(1.0));
}

Ref input_name(const Call& call, const GraphView& view, std::int64_t node_position, Py_ssize_t input) {
  const Ref node = view.mapped_node(call[callback::node_mapping], node_position);
  return py::item(py::attribute(node.get(), names::input).get(), input);
}

Initializer look_up(GraphView& view, const Ref& name) {
  const Ref names = py::checked(PyList_New(0));
  py::check(PyList_Append(names.get(), name.get()));
  return view.one_initializer(names.get());
}

/// Back to the element type of `like`, toward zero.
Ref truncated(const Ref& array, const Ref& like) {
  return py::call_method(array.get(), names::astype, {py::attribute(like.get(), names::dtype).get()});
}

}  // namespace

Ref rescale_for_new_parameters(const Call& call, GraphView& view) {
  PyObject* nodes = call[callback::replaced_nodes];
  const Ref current = scale_of(nodes, quantize_before);
  const Ref wanted = scale_of(nodes, quantize_after);
  // A Python float: NumPy keeps 32-bit arrays at 32 bits when one is multiplied in.
  const Ref ratio = py::checked(PyNumber_TrueDivide(wanted.get(), current.get()));

  const Ref bias_name = input_name(call, view, conv_position, bias_input);
  const Initializer bias = look_up(view, bias_name);
  const Ref old_bias = astype(call.module, bias.array.get(), names::int32);
  const Ref scale_name = input_name(call, view, dequantize_position, scale_input);
  const Initializer words = look_up(view, scale_name);
  const Ref old_scales = unpack_scales(call.module, words.array.get());

  const Ref float_bias = astype(call.module, old_bias.get(), names::float32);
  const Ref new_bias = truncated(py::checked(PyNumber_Multiply(float_bias.get(), ratio.get())), old_bias);
  const Ref new_scales = truncated(py::checked(PyNumber_TrueDivide(old_scales.get(), ratio.get())), old_scales);

  const Ref bias_record = from_array(call.module, new_bias.get(), bias_name.get());
  const Ref new_words = pack_scales(call.module, new_scales.get());
  const Ref scale_record = make_scale_initializer(call.module, scale_name.get(), new_words.get());
  view.replace(std::array{
      InitializerChange{bias_name.get(), bias.record.get(), bias_record.get()},
      InitializerChange{scale_name.get(), words.record.get(), scale_record.get()},
  });
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
