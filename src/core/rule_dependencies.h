// Which old tensors come to depend on which outside inputs through a replacement.
#pragma once

#include "core/rule.h"

namespace onnxgraft::core {

/// Fills the four lists of dependencies.
void find_dependencies(Rule& rule);

}  // namespace onnxgraft::core
