// Which old tensors come to depend on which outside inputs through a replacement.
#pragma once

#include "core/rule.h"

namespace onnxgraft::core {

/// Fills the four lists of dependencies.
void find_dependencies(Rule& rule);

/// The first entry of the replacement whose output depends on itself, as nothing in the pattern does; the number
/// of entries if there is none. No graph can hold such a replacement.
std::size_t find_own_cycle(const Rule& rule);

}  // namespace onnxgraft::core
