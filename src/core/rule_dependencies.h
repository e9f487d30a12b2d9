// Which old tensors come to depend on which inputs through a replacement.
//
// Decided from the lists alone, once per rule, so that most rules never need a walk over a graph. An input is an
// outside tensor of the pattern, or what nested bodies of a matched node read, which is known only once there is a
// graph. Initializers are left out: they depend on nothing and cannot close a cycle.
#pragma once

#include "core/rule.h"

namespace onnxgraft::core {

/// Fills the four lists of dependencies of the rule. Called by the compiler as its last step.
void find_dependencies(Rule& rule);

/// The first entry of the replacement whose output depends on itself, while the pattern's does not; the number of
/// entries if there is none. Spliced in, it would close a cycle in every graph, so the compiler refuses the pair.
std::size_t find_own_cycle(const Rule& rule);

}  // namespace onnxgraft::core
