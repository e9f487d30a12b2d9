// Which operators may carry nested graphs. Looking through the attributes of every node would double the time
// that reading a graph takes, and nearly all of them are standard operators that have no graph attribute.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "core/names.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// True for an operator whose nodes may hold bodies or whole tensors.
bool may_be_large(std::string_view op);

/// Whether the text names the domain of the standard operators.
bool is_default_domain(std::string_view domain);

/// Answers for the operators of one graph.
class OperatorBodies {
 public:
  explicit OperatorBodies(const core::Names& ops) : ops_(ops) {}

  /// False if `node`, whose operator is `op`, is of a standard operator whose schema knows no graph attribute, or a
  /// quantize or dequantize node. Operators of other domains and unknown ones may carry anything.
  bool possible(PyObject* node, core::NameId op);
  /// Whether a node of that operator and the default domain may hold bodies or whole tensors.
  bool may_be_large_by_default(core::NameId op) { return answer(op) != Answer::small; }

 private:
  enum class Answer : std::uint8_t { unknown, small, constant, anything };
  Answer answer(core::NameId op);

  const core::Names& ops_;
  std::vector<Answer> answers_;  // per operator, for the default domain
};

}  // namespace onnxgraft::py
