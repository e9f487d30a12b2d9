// Callback of `replace_concat_quant_v10`: only a concatenation of products, each fed by a dequantize node, is
// rewritten; then the biases as everywhere in the pull-up family.
#include <algorithm>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "quant/callbacks.h"
#include "quant/host.h"
#include "quant/inherited.h"
#include "quant/names.h"
#include "quant/refusal.h"
#include "quant/round.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName mul("Mul");
const InternedName own_class("ReplaceConcatQuantTransformationV10");

/// What the walk over the graph has seen of one input of the concatenation.
struct Joined {
  std::string tensor;
  std::vector<std::string> factors;  // inputs of the product that writes it
  bool has_producer = false;
};

std::vector<Ref> elements(const Ref& list) {
  std::vector<Ref> result;
  const Ref iterator = py::iterator(list.get());
  while (Ref element = py::next(iterator.get())) result.push_back(std::move(element));
  return result;
}

std::vector<std::string> strings(const Ref& list) {
  std::vector<std::string> result;
  for (const Ref& element : elements(list)) result.emplace_back(py::utf8(element.get()));
  return result;
}

/// Whether the first writer of each tensor is a `Mul` that reads the output of some dequantize node: one walk
/// for all tensors, which ends as soon as the answer is known.
class ProductWalk {
 public:
  explicit ProductWalk(const Ref& tensors) {
    for (std::string& tensor : strings(tensors)) joined_.push_back({std::move(tensor), {}, false});
  }

  bool run(const Ref& nodes) {
    const Ref elements = py::iterator(nodes.get());
    while (const Ref node = py::next(elements.get())) {
      if (!visit(node)) return false;
      if (is_complete()) return true;
    }
    return is_complete();
  }

  /// After a run whose answer was no: a tensor that is no such product.
  [[nodiscard]] std::string_view wrong_tensor() const {
    if (!wrong_.empty()) return wrong_;
    const auto found = std::ranges::find_if(joined_, [&](const Joined& joined) { return !is_product(joined); });
    return found == joined_.end() ? std::string_view() : found->tensor;
  }

 private:
  [[nodiscard]] bool is_product(const Joined& joined) const {
    return joined.has_producer && std::ranges::any_of(joined.factors, [&](const std::string& factor) {
             return dequantized_.contains(factor);
           });
  }

  /// False if the node settles that the answer is no.
  bool visit(const Ref& node) {
    const Ref op_type = py::attribute(node.get(), names::op_type);
    const bool is_dequantize = is(op_type, names::tessel_dequant);
    const Ref outputs = py::attribute(node.get(), names::output);
    const Py_ssize_t count = py::length(outputs.get());
    for (Py_ssize_t index = 0; index < count; ++index) {
      const Ref output = py::item(outputs.get(), index);
      const std::string_view name = py::utf8(output.get());
      if (is_dequantize) changed_ = dequantized_.emplace(name).second || changed_;
      for (Joined& joined : joined_) {
        if (joined.has_producer || joined.tensor != name) continue;
        if (!is(op_type, mul)) {
          wrong_ = joined.tensor;
          return false;
        }
        joined.has_producer = true;
        joined.factors = strings(py::attribute(node.get(), names::input));
        changed_ = true;
      }
    }
    return true;
  }

  static bool is(const Ref& op_type, const InternedName& name) {
    return py::check(PyObject_RichCompareBool(op_type.get(), name.get(), Py_EQ)) != 0;
  }

  bool is_complete() {
    if (!std::exchange(changed_, false)) return false;
    return std::ranges::all_of(joined_, [&](const Joined& joined) { return is_product(joined); });
  }

  std::vector<Joined> joined_;
  std::unordered_set<std::string> dequantized_;
  std::string wrong_;    // a tensor that something other than a product writes
  bool changed_ = true;  // since completeness was last asked for
};

std::vector<Ref> writers(Round& round, const Ref& nodes, const Ref& tensor) {
  std::vector<Ref> found = round.possible_writers(nodes.get(), tensor.get());
  std::erase_if(found, [&](const Ref& node) {
    return py::check(PySequence_Contains(py::attribute(node.get(), names::output).get(), tensor.get())) == 0;
  });
  return found;
}

/// What the walk finds out, by look-ups.
bool all_products(Round& round, const Ref& nodes, const Ref& tensors) {
  const auto is_dequantized = [&](const Ref& factor) {
    return std::ranges::any_of(writers(round, nodes, factor),
                               [](const Ref& node) { return has_op_type(node.get(), names::tessel_dequant); });
  };
  const auto is_product = [&](const Ref& tensor) {
    const std::vector<Ref> producers = writers(round, nodes, tensor);
    return !producers.empty() && has_op_type(producers.front().get(), mul) &&
           std::ranges::any_of(elements(py::attribute(producers.front().get(), names::input)), is_dequantized);
  };
  return std::ranges::all_of(elements(tensors), is_product);
}

Ref product_words(const Ref& concat, std::string_view tensor) {
  return py::checked(PyUnicode_FromFormat("the input '%S' of %S is not the product (Mul) of a TesselDequant's output",
                                          py::text(tensor).get(), node_words(concat.get()).get()));
}

}  // namespace

Ref require_dequantized_products(const Call& call) {
  const Ref nodes = py::attribute(call[callback::graph], names::node);
  const Ref concat = py::item(call[callback::replaced_nodes], 0);
  const Ref tensors = py::attribute(concat.get(), names::input);
  ProductWalk walk(tensors);
  Round* round = Round::on(call[callback::graph]);
  if (round != nullptr ? !all_products(*round, nodes, tensors) : !walk.run(nodes)) {
    return refused(call, [&] {
      if (round != nullptr) walk.run(nodes);
      return product_words(concat, walk.wrong_tensor());
    });
  }
  return inherited_callback(call, own_class, call[callback::links]);
}

}  // namespace onnxgraft::quant
