// Draws and writes what a quantized operator needs.
//
// The order of draws decides the values, so it must not change. New initializers are added in one step, after all are
// made.
#include "quant/families/quantized_operators.h"

#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"
#include "quant/numpy/scales.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

constexpr std::int64_t int8_code = 3;
// Upper bounds are exclusive.
constexpr std::int64_t lowest_weight = -128;
constexpr std::int64_t weight_bound = 127;
constexpr std::int64_t lowest_bias = -18;
constexpr std::int64_t bias_bound = 13;

const InternedName update_weights("_update_weights");
const InternedName update_bias("_update_bias");
const InternedName update_tesseldequant("_update_tesseldequant");
const InternedName get("get");
const InternedName squeeze("squeeze");
const InternedName transpose("transpose");
const InternedName bias_names_keyword("bias_names");
const InternedName weight_names_keyword("weight_names");
const InternedName scale_name_keyword("scale_name");
const InternedName gemm_mode("gemm");
const InternedName matmul_mode("matmul");

/// `np.random.randint(low, bound, size=shape, dtype=np.<type>)`.
Ref draw_integers(PyObject* module, std::int64_t low, std::int64_t bound, PyObject* shape, const InternedName& type) {
  const Ref np = global(module, names::np);
  const Ref random = py::attribute(np.get(), names::random);
  const Ref dtype = py::attribute(np.get(), type);
  return py::call_method(random.get(), names::randint, {py::integer(low).get(), py::integer(bound).get()},
                         {{names::size, shape}, {names::dtype, dtype.get()}});
}

/// `np.random.rand(*size)`.
Ref draw_uniform(PyObject* module, PyObject* size) {
  const Ref rand = py::attribute(member(module, names::np, names::random).get(), names::rand);
  return py::checked(PyObject_CallObject(rand.get(), py::checked(PySequence_Tuple(size)).get()));
}

/// `links.get(id)`, without the call where it is a plain dict.
Ref bound_name(PyObject* links, PyObject* id) {
  if (PyDict_CheckExact(links) == 0) return py::call_method(links, get, {id});
  PyObject* name = PyDict_GetItemWithError(links, id);
  if (name == nullptr && PyErr_Occurred() != nullptr) throw py::PythonError{};
  return Ref::borrow(name == nullptr ? Py_None : name);
}

/// The tensor names of a role's link ids; None for an id that the match did not bind.
Ref bound_names(PyObject* links, PyObject* input_names, const InternedName& role) {
  const Ref ids = py::iterator(subscript(input_names, role).get());
  Ref bound = py::checked(PyList_New(0));
  while (const Ref id = py::next(ids.get())) {
    py::check(PyList_Append(bound.get(), bound_name(links, id.get()).get()));
  }
  return bound;
}

}  // namespace

Ref update_quantize_node(const Call& call, GraphView& view) {
  view.add_attributes(view.mapped_node(call[2], call[3]).get(), [](PyObject* module) {
    const Ref offset = make_attribute(module, names::offset, py::checked(PyFloat_FromDouble(0.0)).get());
    const Ref scale = make_attribute(module, names::scale, py::checked(PyFloat_FromDouble(1.0)).get());
    return py::tuple({scale.get(), offset.get()});
  });
  return py::none();
}

/// The old contents are let go before memory for the new ones is asked for.
Ref draw_weights(const Call& call, GraphView& view) {
  PyObject* weight_names = call[3];
  const Ref shape = view.shape(py::item(weight_names, 0).get());
  Ref drawn = draw_integers(call.module, lowest_weight, weight_bound, shape.get(), names::int8);
  if (py::truth(call[2])) drawn = py::call_method(drawn.get(), transpose);
  const Ref tensor = from_array(call.module, drawn.get(), py::item(weight_names, 1).get());
  return py::tuple({tensor.get(), shape.get()});
}

Ref draw_bias(const Call& call, GraphView& view) {
  PyObject* bias_names = call[2];
  const Ref shape = view.shape(py::item(bias_names, 0).get());
  const Ref drawn = draw_integers(call.module, lowest_bias, bias_bound, shape.get(), names::int32);
  return from_array(call.module, drawn.get(), py::item(bias_names, 1).get());
}

Ref draw_scales(const Call& call) {
  const Ref drawn = draw_uniform(call.module, call[1]);
  const Ref single = astype(call.module, drawn.get(), names::float32);
  const Ref squeezed = py::call_method(single.get(), squeeze);
  // One scale was squeezed to no dimension at all; the words always form a list.
  const Ref flat = py::call_method(squeezed.get(), names::ravel);
  return make_scale_initializer(call.module, call[2], pack_scales(call.module, flat.get()).get());
}

Ref needs_quantizing(const Call& call, GraphView& view) {
  const Ref type = view.element_type(subscript(call[2], call[3]).get());
  return py::boolean(!py::equal(type.get(), py::integer(int8_code).get()));
}

Ref add_quantized_initializers(const Call& call, GraphView& view) {
  PyObject* graph = call[1];
  PyObject* links = call[2];
  PyObject* input_names = call[3];
  PyObject* mode = call[4];
  const Ref made = py::checked(PyList_New(0));

  const Ref weight_names = bound_names(links, input_names, names::weight);
  const Ref weight_and_shape =
      call_own(call, update_weights, {graph, call[5]}, {{weight_names_keyword, weight_names.get()}});
  const auto [weight, shape] = py::unpack_pair(weight_and_shape.get());
  py::check(PyList_Append(made.get(), weight.get()));

  const Ref bias_names = bound_names(links, input_names, names::bias);
  if (py::item(bias_names.get(), 0).get() != Py_None) {
    const Ref bias = call_own(call, update_bias, {graph}, {{bias_names_keyword, bias_names.get()}});
    py::check(PyList_Append(made.get(), bias.get()));
  }

  const bool one_scale = py::equal(mode, gemm_mode.get()) || py::equal(mode, matmul_mode.get());
  const Ref count = one_scale ? py::integer(1) : py::item(shape.get(), 0);
  const Ref scale_names = bound_names(links, input_names, names::scale);
  const Ref scale_name = py::item(scale_names.get(), 0);
  const Ref scales =
      call_own(call, update_tesseldequant, {py::tuple({count.get()}).get()}, {{scale_name_keyword, scale_name.get()}});
  py::check(PyList_Append(made.get(), scales.get()));

  view.add(made.get());
  return py::none();
}

}  // namespace onnxgraft::quant
