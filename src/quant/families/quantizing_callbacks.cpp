// Callbacks of `quant_conv`, `quant_matmul` and `quant_gemm`: attributes for the new quantize node, initializers for
// the new operator.
//
// An operator whose weight is INT8 already is refused. Everything else goes through methods of `self`, which a subclass
// may override.
#include <array>

#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName check_current_precision("_check_current_precision");
const InternedName update_tesselquant("_update_tesselquant");
const InternedName update_operators("_update_quant_weights_operators");
const InternedName input_name("input_name");
const InternedName tessel_quant_idx("tessel_quant_idx");
const InternedName mode_keyword("mode");
const InternedName transpose_keyword("transpose");
const InternedName weight_link("1");

/// Which pattern ids play which role: the old tensor, then the new one.
struct Roles {
  std::array<InternedName, 2> weight;
  std::array<InternedName, 2> bias;
  InternedName scale;
  InternedName mode;
};

template <std::size_t count>
using Ids = std::array<const char*, count>;

constexpr Roles roles(Ids<2> weight, Ids<2> bias, const char* scale, const char* mode) {
  return {{InternedName(weight[0]), InternedName(weight[1])},
          {InternedName(bias[0]), InternedName(bias[1])},
          InternedName(scale),
          InternedName(mode)};
}

const Roles conv_roles = roles({"1", "101"}, {"2", "102"}, "104", "conv");
const Roles gemm_roles = roles({"1", "101"}, {"2", "102"}, "104", "gemm");
const Roles matmul_roles = roles({"1", "101"}, {"3", "103"}, "105", "matmul");

void set_role(const Ref& names, const InternedName& role, const Ref& ids) {
  py::check(PyDict_SetItem(names.get(), role.get(), ids.get()));
}

/// The dict of roles that the base's methods take.
Ref input_names(const Roles& roles) {
  Ref names = py::checked(PyDict_New());
  set_role(names, names::weight, py::tuple({roles.weight[0].get(), roles.weight[1].get()}));
  set_role(names, names::bias, py::tuple({roles.bias[0].get(), roles.bias[1].get()}));
  set_role(names, names::scale, py::tuple({roles.scale.get()}));
  return names;
}

bool still_float(const Call& call) {
  const Ref answer = call_own(call, check_current_precision, {call[callback::graph], call[callback::links]},
                              {{input_name, weight_link.get()}});
  return py::truth(answer.get());
}

Ref precision_words(const Call& call) {
  const Ref weight = subscript(call[callback::links], weight_link);
  return py::checked(PyUnicode_FromFormat("the weight '%S' is INT8 already", weight.get()));
}

void update_quantize_attributes(const Call& call) {
  call_own(call, update_tesselquant, {call[callback::graph], call[callback::node_mapping]},
           {{tessel_quant_idx, py::integer(0).get()}});
}

/// The default of `transpose` is the method's own.
Ref quantize(const Call& call, const Roles& roles) {
  if (!still_float(call)) return refused(call, [&] { return precision_words(call); });
  update_quantize_attributes(call);
  call_own(call, update_operators, {call[callback::graph], call[callback::links], input_names(roles).get()},
           {{mode_keyword, roles.mode.get()}});
  return py::boolean(true);
}

/// Gives the new `Gemm` a `transB` of 0; returns whether the old weight was stored transposed.
bool replace_trans_b(const Call& call, const GraphView& view) {
  const Ref node = view.mapped_node(call[callback::node_mapping], 1);
  const Ref attributes = py::attribute(node.get(), names::attribute);
  const Ref old = first_attribute(attributes_of(call[callback::replaced_nodes], 0).get(), names::trans_b);
  bool transposed = false;
  if (old) {
    transposed = !py::equal(py::attribute(old.get(), names::i).get(), py::integer(0).get());
    py::call_method(attributes.get(), names::remove, {old.get()});
  }
  const Ref plain = make_attribute(call.module, names::trans_b, py::integer(0).get());
  py::call_method(attributes.get(), names::append, {plain.get()});
  return transposed;
}

}  // namespace

Ref quantize_conv(const Call& call, GraphView& /*view*/) { return quantize(call, conv_roles); }

Ref quantize_matmul(const Call& call, GraphView& /*view*/) { return quantize(call, matmul_roles); }

Ref quantize_gemm(const Call& call, GraphView& view) {
  if (!still_float(call)) return refused(call, [&] { return precision_words(call); });
  PyObject* transposed = replace_trans_b(call, view) ? Py_True : Py_False;
  update_quantize_attributes(call);
  call_own(call, update_operators, {call[callback::graph], call[callback::links], input_names(gemm_roles).get()},
           {{mode_keyword, gemm_roles.mode.get()}, {transpose_keyword, transposed}});
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
