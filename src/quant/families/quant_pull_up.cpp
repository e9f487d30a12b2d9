// Callback of the pull-up family. Every convolution that reads the quantized tensor has the offset taken out of
// its bias, per output channel:
//   bias' = bias - trunc(sum(weight) * offset)
// A convolution with padding is refused, whatever the offset: padded places hold 0, not the offset.
#include <algorithm>
#include <string>
#include <vector>

#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/families/reading_convolutions.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

constexpr Py_ssize_t weight_input = 1;
constexpr Py_ssize_t bias_input = 2;

const InternedName quantized_link("99");
const InternedName float_type("FLOAT");
const InternedName int_type("INT");
const InternedName sum("sum");
const InternedName axis("axis");
const InternedName ndim("ndim");
const InternedName array_equal("array_equal");
const InternedName add("add");
const InternedName to_array("to_array");

bool equal(const Ref& left, const Ref& right) { return py::equal(left.get(), right.get()); }

/// The offset of a quantize node as a Python float; an attribute that is not a number counts as 0.
Ref offset_of(PyObject* module, const Ref& node) {
  const Ref offset = first_attribute(py::attribute(node.get(), names::attribute).get(), names::offset);
  if (offset) {
    const Ref type = py::attribute(offset.get(), names::type);
    if (equal(type, member(module, names::attribute_proto, float_type))) return py::attribute(offset.get(), names::f);
    if (equal(type, member(module, names::attribute_proto, int_type))) {
      return py::checked(PyNumber_Float(py::attribute(offset.get(), names::i).get()));
    }
  }
  return py::checked(PyFloat_FromDouble(0.0));
}

/// trunc(sum over all axes but the first * offset), 32-bit integers.
Ref bias_delta(PyObject* module, const Ref& weight, const Ref& offset) {
  const std::int64_t rank = py::integer_value(py::attribute(weight.get(), ndim).get());
  const Ref axes = py::checked(PyList_New(0));
  for (std::int64_t index = 1; index < rank; ++index) {
    py::check(PyList_Append(axes.get(), py::integer(index).get()));
  }
  const Ref sums = py::call_method(weight.get(), sum, {}, {{axis, py::checked(PyList_AsTuple(axes.get())).get()}});
  return astype(module, py::checked(PyNumber_Multiply(sums.get(), offset.get())).get(), names::int32);
}

/// Corrects the biases of one occurrence. Everything is computed before anything is written.
class BiasCorrection {
 public:
  /// What waits is known by its name among the updated ones.
  BiasCorrection(GraphView& view, const Ref& updated)
      : view_(view), updated_(updated.get()), waits_(PySet_CheckExact(updated.get()) != 0 && view.may_wait()) {}

  void compute(const std::vector<ReadingConvolution>& convolutions, const Ref& offset);
  void write();

 private:
  struct NewBias {
    const ReadingConvolution* convolution;
    Ref name;  // of the bias to replace; empty if the convolution has none
    Ref value;
  };

  [[nodiscard]] bool is_updated(const Ref& name) const {
    return py::check(PySequence_Contains(updated_, name.get())) != 0;
  }
  [[nodiscard]] bool is_planned(const Ref& name) const;
  [[nodiscard]] bool can_share(const Ref& name, const Ref& value) const;
  void append(const Ref& name, const Ref& value);
  void replace_bias(const NewBias& bias);
  void give_bias(const NewBias& bias);

  GraphView& view_;
  PyObject* updated_;
  bool waits_;
  std::vector<NewBias> planned_;
};

bool BiasCorrection::is_planned(const Ref& name) const {
  return std::ranges::any_of(planned_, [&](const NewBias& bias) { return bias.name && equal(bias.name, name); });
}

void BiasCorrection::compute(const std::vector<ReadingConvolution>& convolutions, const Ref& offset) {
  for (const ReadingConvolution& convolution : convolutions) {
    const Ref delta = bias_delta(view_.module(), convolution.weight, offset);
    if (!convolution.bias_record) {
      planned_.push_back({&convolution, {}, py::checked(PyNumber_Negative(delta.get()))});
      continue;
    }
    Ref name = py::attribute(convolution.bias_record.get(), names::name);
    if (is_updated(name) || is_planned(name)) continue;
    const Ref value = py::checked(PyNumber_Subtract(convolution.bias.get(), delta.get()));
    const Ref dtype = py::attribute(convolution.bias.get(), names::dtype);
    planned_.push_back({&convolution, std::move(name), py::call_method(value.get(), names::astype, {dtype.get()})});
  }
}

void BiasCorrection::write() {
  for (const NewBias& bias : planned_) {
    if (bias.name) {
      replace_bias(bias);
    } else {
      give_bias(bias);
    }
  }
}

void BiasCorrection::append(const Ref& name, const Ref& value) {
  const Ref record = from_array(view_.module(), value.get(), name.get());
  if (waits_) {
    view_.waiting().add(name.get(), record.get());
  } else {
    view_.add({record.get()});
  }
  py::call_method(updated_, add, {name.get()});
}

void BiasCorrection::replace_bias(const NewBias& bias) {
  const Ref record = from_array(view_.module(), bias.value.get(), bias.name.get());
  if (waits_) {
    view_.waiting().add(bias.name.get(), record.get(), bias.convolution->bias_record.get());
  } else {
    const InitializerChange change{bias.name.get(), bias.convolution->bias_record.get(), record.get()};
    view_.replace({&change, 1});
  }
  py::call_method(updated_, add, {bias.name.get()});
}

/// Whether a bias of this `apply` already holds exactly this value.
bool BiasCorrection::can_share(const Ref& name, const Ref& value) const {
  if (!is_updated(name) || !view_.has_initializer(name.get())) return false;
  PyObject* waiting = view_.waiting().find(name.get());
  const Ref existing = waiting != nullptr ? call_member(view_.module(), names::numpy_helper, to_array, {waiting})
                                          : view_.one_array(name.get());
  if (!equal(py::attribute(existing.get(), names::dtype), py::attribute(value.get(), names::dtype))) return false;
  return py::truth(call_member(view_.module(), names::np, array_equal, {existing.get(), value.get()}).get());
}

/// A convolution without bias gets one named after its weight.
void BiasCorrection::give_bias(const NewBias& bias) {
  const Ref inputs = py::attribute(bias.convolution->node.get(), names::input);
  const Ref weight_name = py::item(inputs.get(), weight_input);
  std::string text = std::string(py::utf8(weight_name.get())) + "_bias";
  Ref name = py::text(text);
  if (!can_share(name, bias.value)) {
    text = view_.fresh_name(text);
    name = py::text(text);
    append(name, bias.value);
  }
  if (py::length(inputs.get()) > bias_input) {
    py::check(PyObject_SetItem(inputs.get(), py::integer(bias_input).get(), name.get()));
  } else {
    py::call_method(inputs.get(), names::append, {name.get()});
  }
  view_.note_new_input(text);
}

}  // namespace

Ref correct_conv_biases(const Call& call, GraphView& view) {
  const Ref quantize = py::item(call[callback::replaced_nodes], -1);
  if (!has_op_type(quantize.get(), names::tessel_quant)) return py::boolean(true);
  const Ref offset = offset_of(call.module, quantize);
  const Ref quantized = subscript(call[callback::links], quantized_link);
  std::vector<Ref> reading = view.readers(names::conv, quantized.get());
  if (any_padded(reading)) return refused(call, [&] { return padding_words(reading, quantized.get()); });
  const auto convolutions = with_tensors(view, std::move(reading));
  if (!convolutions) return refused(call, [&] { return tensor_words(view, quantized.get()); });
  const Ref updated = subscript(call.keywords, names::conv_bias_updated);
  BiasCorrection correction(view, updated);
  correction.compute(*convolutions, offset);
  correction.write();
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
