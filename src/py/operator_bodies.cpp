#include "py/operator_bodies.h"

#include <algorithm>

#include "py/bodyless_operators.h"
#include "py/graph_fields.h"
#include "py/objects.h"

namespace onnxgraft::py {

static_assert(std::ranges::is_sorted(bodyless_operators));

bool may_be_large(std::string_view op) {
  return op == "Constant" || !std::ranges::binary_search(bodyless_operators, op);
}

bool OperatorBodies::possible(PyObject* node, core::NameId op) {
  if (op >= answers_.size()) answers_.resize(ops_.size(), Answer::unknown);
  if (answers_[op] == Answer::unknown) {
    answers_[op] = std::ranges::binary_search(bodyless_operators, ops_.text(op)) ? Answer::no : Answer::yes;
  }
  if (answers_[op] == Answer::yes) return true;
  const Ref domain = attribute(node, field::domain);
  const std::string_view name = utf8(domain.get());
  return !name.empty() && name != "ai.onnx";
}

}  // namespace onnxgraft::py
