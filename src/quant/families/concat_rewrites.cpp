// Callback of `replace_concat_quant_v10`: only a concatenation of products, each fed by a dequantize node, is
// rewritten; then the biases as everywhere in the pull-up family.
//
// It refuses before anything is written. Must not know how biases are corrected.
#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName mul("Mul");
/// Whether the first writer of the tensor is a `Mul` that reads the output of some dequantize node.
bool is_product(GraphView& view, const Ref& tensor) {
  const Ref writer = view.first_writer(tensor.get());
  if (!writer || !has_op_type(writer.get(), mul)) return false;
  const Ref factors = py::iterator(py::attribute(writer.get(), names::input).get());
  while (const Ref factor = py::next(factors.get())) {
    if (view.is_written_by(names::tessel_dequant, factor.get())) return true;
  }
  return false;
}

Ref product_words(const Ref& concat, const Ref& tensor) {
  return py::checked(PyUnicode_FromFormat("the input '%S' of %S is not the product (Mul) of a TesselDequant's output",
                                          tensor.get(), node_words(concat.get()).get()));
}

}  // namespace

Ref require_dequantized_products(const Call& call, GraphView& view) {
  const Ref concat = py::item(call[callback::replaced_nodes], 0);
  const Ref tensors = py::iterator(py::attribute(concat.get(), names::input).get());
  while (const Ref tensor = py::next(tensors.get())) {
    if (!is_product(view, tensor)) return refused(call, [&] { return product_words(concat, tensor); });
  }
  return inherited_callback(call, call[callback::links]);
}

}  // namespace onnxgraft::quant
