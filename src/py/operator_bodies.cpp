#include "py/operator_bodies.h"

#include <algorithm>

#include "py/bodyless_operators.h"
#include "py/graph_fields.h"
#include "py/objects.h"

namespace onnxgraft::py {

static_assert(std::ranges::is_sorted(bodyless_operators));

namespace {

constexpr std::string_view constant = "Constant";

}  // namespace

bool may_be_large(std::string_view op) { return op == constant || !std::ranges::binary_search(bodyless_operators, op); }

bool is_default_domain(std::string_view domain) { return domain.empty() || domain == "ai.onnx"; }

OperatorBodies::Answer OperatorBodies::answer(core::NameId op) {
  if (op >= answers_.size()) answers_.resize(ops_.size(), Answer::unknown);
  Answer& known = answers_[op];
  if (known == Answer::unknown) {
    const std::string_view name = ops_.text(op);
    known = may_be_large(name) ? Answer::anything : Answer::small;
    if (name == constant) known = Answer::constant;
  }
  return known;
}

bool OperatorBodies::possible(PyObject* node, core::NameId op) {
  return answer(op) == Answer::anything || !is_default_domain(utf8(attribute(node, field::domain).get()));
}

}  // namespace onnxgraft::py
