#include "quant/quantizing_call.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "quant/callbacks.h"
#include "quant/host.h"
#include "quant/initializers.h"
#include "quant/names.h"
#include "quant/quantized_operators.h"
#include "quant/round.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

thread_local QuantizingCall* innermost = nullptr;

struct Method {
  InternedName name;
  Ref (*body)(const Call&);
};

// In the order of OwnMethod.
const std::array methods{
    Method{InternedName("_check_current_precision"), needs_quantizing},
    Method{InternedName("_update_tesselquant"), update_quantize_node},
    Method{InternedName("_update_quant_weights_operators"), add_quantized_initializers},
    Method{InternedName("_update_weights"), draw_weights},
    Method{InternedName("_update_bias"), draw_bias},
    Method{InternedName("_update_tesseldequant"), draw_scales},
};

bool is_built_in(PyObject* transformation, const Method& method) {
  const Ref bound = py::optional_attribute(transformation, method.name);
  if (!bound || PyMethod_Check(bound.get()) == 0) return false;
  const py::FunctionRow* row = py::row_of(PyMethod_Function(bound.get()));
  return row != nullptr && row->body == method.body;
}

/// Whether all of these methods are built in, and `get_init` promises to answer alike when asked twice.
bool methods_are_built_in(PyObject* module, PyObject* transformation) {
  const auto built_in = [&](const Method& method) { return is_built_in(transformation, method); };
  return look_up_is_repeatable(module) && std::ranges::all_of(methods, built_in);
}

TensorKind kind_of(PyObject* module, PyObject* graph, PyObject* name) {
  static const InternedName describe("describe");
  const Ref look_up = member(module, names::transform_utilities, names::get_init);
  const Ref description = py::call_method(look_up.get(), describe, {graph, name});
  if (description.get() != Py_None) return {py::item(description.get(), 0), py::item(description.get(), 1)};
  const Initializer found = one_initializer(module, graph, py::tuple({name}).get());
  return {py::attribute(found.record.get(), names::data_type), py::attribute(found.array.get(), names::shape)};
}

}  // namespace

Ref call_own(const Call& call, OwnMethod method, std::initializer_list<PyObject*> arguments,
             std::initializer_list<py::Keyword> keywords) {
  const Method& row = methods[static_cast<std::size_t>(method)];
  if (!QuantizingCall::is_direct(call[0])) return py::call_method(call[0], row.name, arguments, keywords);
  std::array<PyObject*, 8> values{call[0]};
  auto* end = std::ranges::copy(arguments, values.data() + 1).out;
  end = std::ranges::transform(keywords, end, &py::Keyword::value).out;
  return row.body(Call{call.module, {values.data(), end}, nullptr});
}

QuantizingCall::QuantizingCall(const Call& callback) : outer_(innermost), transformation_(callback[callback::self]) {
  const auto check = [&] { return methods_are_built_in(callback.module, transformation_); };
  Round* round = Round::on(callback[callback::graph]);
  built_in_ = round == nullptr ? check() : round->remember(transformation_, check);
  innermost = this;
}

QuantizingCall::~QuantizingCall() { innermost = outer_; }

bool QuantizingCall::is_direct(PyObject* transformation) noexcept {
  return innermost != nullptr && innermost->built_in_ && innermost->transformation_ == transformation;
}

const TensorKind* QuantizingCall::describe(PyObject* module, PyObject* graph, PyObject* name) {
  QuantizingCall* call = innermost;
  if (call == nullptr || !call->built_in_) return nullptr;
  if (call->graph_.get() != graph || call->name_.get() != name) {
    call->kind_ = kind_of(module, graph, name);
    call->graph_ = Ref::borrow(graph);
    call->name_ = Ref::borrow(name);
  }
  return &call->kind_;
}

}  // namespace onnxgraft::quant
