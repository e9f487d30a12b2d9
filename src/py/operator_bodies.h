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

/// Answers for the operators of one graph.
class OperatorBodies {
 public:
  explicit OperatorBodies(const core::Names& ops) : ops_(ops) {}

  /// False if `node`, whose operator is `op`, is of a standard operator whose schema knows no graph attribute, or a
  /// quantize or dequantize node. Operators of other domains and unknown ones may carry anything.
  bool possible(PyObject* node, core::NameId op);

 private:
  enum class Answer : std::uint8_t { unknown, no, yes };
  const core::Names& ops_;
  std::vector<Answer> answers_;  // per operator, for the default domain
};

}  // namespace onnxgraft::py
