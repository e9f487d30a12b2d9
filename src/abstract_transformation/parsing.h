// A pair of lists taken apart, for tools that show or build what a pattern says.
//
// The tuples follow the compiled rule, so that tools need no parser of their own. Must not know graphs.
#pragma once

#include "core/rule.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// `parse(pattern, replacement)`: a tuple of pattern nodes and one of replacement entries, in the order of the lists.
Ref parsed(const core::Rule& rule);

}  // namespace onnxgraft::py
