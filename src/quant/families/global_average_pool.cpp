// Callback of `change_gap_conv`: both convolutions of the block get float weights and biases. With s the
// dequantize scale of an output channel and q the scale of the quantize node before it:
//   weight' = weight / ((1 / s) / q)     bias' = bias * s     all in 32-bit floats, in this order
#include <array>
#include <optional>

#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"
#include "quant/numpy/scales.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

constexpr Py_ssize_t first_conv = 2;
constexpr Py_ssize_t second_conv = -3;
constexpr Py_ssize_t nodes_with_relu = 9;  // with a swish there are ten

/// Where one convolution of the block finds its old tensors and puts its new ones.
struct Convolution {
  InternedName weight;
  InternedName bias;
  InternedName dequantize_scale;
  InternedName float_weight;
  InternedName float_bias;
};

const std::array convolutions{
    Convolution{InternedName("3"), InternedName("4"), InternedName("6"), InternedName("100"), InternedName("101")},
    Convolution{InternedName("11"), InternedName("12"), InternedName("14"), InternedName("102"), InternedName("103")},
};

struct FloatTensors {
  Ref weight;
  Ref bias;
};

bool has_group_one(PyObject* nodes, Py_ssize_t position) {
  const Ref group = first_value(attributes_of(nodes, position).get(), names::group, names::i);
  return group && py::equal(group.get(), py::integer(1).get());
}

Ref linked_array(const Call& call, GraphView& view, const InternedName& link) {
  return view.one_array(subscript(call[callback::links], link).get());
}

/// The first array that a look-up gives, however many there are.
Ref first_linked_array(const Call& call, GraphView& view, const InternedName& link) {
  const Ref name = subscript(call[callback::links], link);
  const Ref found = view.look_up(py::tuple({name.get()}).get());
  return py::item(py::unpack_pair(found.get()).first.get(), 0);
}

Ref divide(const Ref& left, const Ref& right) { return py::checked(PyNumber_TrueDivide(left.get(), right.get())); }

/// `weight.shape[2:] == (1, 1)`
bool is_one_by_one(const Ref& weight) {
  const Ref shape = py::attribute(weight.get(), names::shape);
  const Ref kernel = py::checked(PySequence_GetSlice(shape.get(), 2, PY_SSIZE_T_MAX));
  const Ref one = py::integer(1);
  const Ref wanted = py::tuple({one.get(), one.get()});
  return py::equal(kernel.get(), wanted.get());
}

/// One value per output channel, shaped to broadcast over a weight of four dimensions.
Ref expanded(const Call& call, const Ref& per_channel) {
  static const InternedName expand_dims("expand_dims");
  const Ref axes = py::tuple({py::integer(1).get(), py::integer(2).get(), py::integer(3).get()});
  return py::call_method(global(call.module, names::np).get(), expand_dims, {per_channel.get(), axes.get()});
}

Ref group_words(PyObject* nodes, Py_ssize_t position) {
  const Ref node = node_words(py::item(nodes, position).get());
  const Ref group = first_value(attributes_of(nodes, position).get(), names::group, names::i);
  if (!group)
    return py::checked(PyUnicode_FromFormat("%S has no attribute 'group'; it has to be written out as 1", node.get()));
  return py::checked(PyUnicode_FromFormat("%S has group = %S, not 1", node.get(), group.get()));
}

Ref parameter_words(const Call& call, const Convolution& where) {
  const Ref weight = subscript(call[callback::links], where.weight);
  return py::checked(PyUnicode_FromFormat(
      "the TesselQuant node before the Conv with the weight '%S' has no scale or no offset", weight.get()));
}

Ref kernel_words(const Ref& name, const Ref& weight) {
  const Ref shape = py::attribute(weight.get(), names::shape);
  return py::checked(
      PyUnicode_FromFormat("the weight '%S' of shape %R is not that of a 1x1 kernel", name.get(), shape.get()));
}

/// The float tensors of one convolution; none if the block has to be refused.
std::optional<FloatTensors> dequantized(const Call& call, GraphView& view, const Convolution& where,
                                        const Ref& quantize_attributes) {
  PyObject* links = call[callback::links];
  const Ref words = first_linked_array(call, view, where.dequantize_scale);
  const Ref shaped_scales = unpack_scales(call.module, words.get());
  const Ref scales = py::call_method(shaped_scales.get(), names::ravel);
  const Ref quantize_scale = first_value(quantize_attributes.get(), names::scale, names::f);
  if (!quantize_scale || !first_attribute(quantize_attributes.get(), names::offset)) {
    give_reason(call, [&] { return parameter_words(call, where); });
    return std::nullopt;
  }
  const Ref divisor = divide(divide(py::integer(1), scales), quantize_scale);

  const Ref weight = astype(call.module, linked_array(call, view, where.weight).get(), names::float32);
  if (!is_one_by_one(weight)) {
    give_reason(call, [&] { return kernel_words(subscript(links, where.weight), weight); });
    return std::nullopt;
  }
  const Ref old_bias = astype(call.module, linked_array(call, view, where.bias).get(), names::float32);
  const Ref new_weight = divide(weight, expanded(call, divisor));
  Ref weight_record = from_array(call.module, new_weight.get(), subscript(links, where.float_weight).get());
  const Ref new_bias = py::checked(PyNumber_InPlaceMultiply(old_bias.get(), scales.get()));
  return FloatTensors{std::move(weight_record),
                      from_array(call.module, new_bias.get(), subscript(links, where.float_bias).get())};
}

}  // namespace

Ref make_float_convolutions(const Call& call, GraphView& view) {
  PyObject* nodes = call[callback::replaced_nodes];
  for (const Py_ssize_t position : {first_conv, second_conv}) {
    if (!has_group_one(nodes, position)) return refused(call, [&] { return group_words(nodes, position); });
  }
  const std::array quantize_positions{Py_ssize_t{1}, Py_ssize_t{py::length(nodes) == nodes_with_relu ? 5 : 6}};
  const std::array quantize_attributes{attributes_of(nodes, quantize_positions[0]),
                                       attributes_of(nodes, quantize_positions[1])};
  const Ref made = py::checked(PyList_New(0));
  for (std::size_t index = 0; index < convolutions.size(); ++index) {
    const std::optional<FloatTensors> tensors =
        dequantized(call, view, convolutions[index], quantize_attributes[index]);
    if (!tensors) return py::boolean(false);
    py::check(PyList_Append(made.get(), tensors->weight.get()));
    py::check(PyList_Append(made.get(), tensors->bias.get()));
  }
  view.add(made.get());
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
