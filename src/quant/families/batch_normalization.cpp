// Callback of `fuse_bn_quant`: both convolutions get the same synthetic INT32 bias.
//
// Its bytes are those of random doubles, reread as two 32-bit words each, low word first. An odd number of
// output channels therefore gets a bias one element short.
#include "quant/families/callbacks.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName weight_link("2");
const InternedName first_bias_link("101");
const InternedName second_bias_link("103");

Ref draw_words(const Call& call, const Ref& channels) {
  const Ref half = py::checked(PyNumber_FloorDivide(channels.get(), py::integer(2).get()));
  const Ref random = member(call.module, names::np, names::random);
  const Ref drawn = py::call_method(random.get(), names::rand, {half.get()});
  return view(call.module, drawn.get(), names::int32);
}

}  // namespace

Ref add_folded_biases(const Call& call, GraphView& view) {
  PyObject* links = call[callback::links];
  const Ref weight_name = subscript(links, weight_link);
  const Ref weight = view.one_array(weight_name.get());
  const Ref channels = py::item(py::attribute(weight.get(), names::shape).get(), 0);
  const Ref words = draw_words(call, channels);
  const Ref first = from_array(call.module, words.get(), subscript(links, first_bias_link).get());
  const Ref second = from_array(call.module, words.get(), subscript(links, second_bias_link).get());
  view.add({first.get(), second.get()});
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
