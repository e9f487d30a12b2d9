// Callback of `replace_concat_quant_v10`: only a concatenation of products, each fed by a dequantize node, is
// rewritten; then the biases as everywhere in the pull-up family.
#include "quant/callbacks.h"
#include "quant/host.h"
#include "quant/inherited.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName mul("Mul");
const InternedName own_class("ReplaceConcatQuantTransformationV10");

bool contains(const Ref& container, const Ref& element) {
  return py::check(PySequence_Contains(container.get(), element.get())) != 0;
}

bool writes(const Ref& node, const Ref& tensor) { return contains(py::attribute(node.get(), names::output), tensor); }

bool writes_any(const Ref& node, const Ref& tensors) {
  const Ref outputs = py::iterator(py::attribute(node.get(), names::output).get());
  while (const Ref output = py::next(outputs.get())) {
    if (contains(tensors, output)) return true;
  }
  return false;
}

/// The first node of the graph, in its order, that the test accepts; empty if there is none.
template <class Test>
Ref first_node(const Ref& nodes, Test test) {
  const Ref elements = py::iterator(nodes.get());
  while (Ref node = py::next(elements.get())) {
    if (test(node)) return node;
  }
  return {};
}

bool is_dequantized_product(const Ref& nodes, const Ref& tensor) {
  const Ref producer = first_node(nodes, [&](const Ref& node) { return writes(node, tensor); });
  if (!producer || !has_op_type(producer.get(), mul)) return false;
  const Ref factors = py::attribute(producer.get(), names::input);
  const Ref dequantize = first_node(nodes, [&](const Ref& node) {
    return has_op_type(node.get(), names::tessel_dequant) && writes_any(node, factors);
  });
  return static_cast<bool>(dequantize);
}

}  // namespace

Ref require_dequantized_products(const Call& call) {
  const Ref nodes = py::attribute(call[callback::graph], names::node);
  const Ref concat = py::item(call[callback::replaced_nodes], 0);
  const Ref inputs = py::iterator(py::attribute(concat.get(), names::input).get());
  while (const Ref input = py::next(inputs.get())) {
    if (!is_dequantized_product(nodes, input)) return py::boolean(false);
  }
  return inherited_callback(call, own_class, call[callback::links]);
}

}  // namespace onnxgraft::quant
