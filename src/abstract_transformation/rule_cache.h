// Compiled rules by the content of their lists: a class runs the same few pairs again and again.
//
// A rule is immutable, so that passes can share it. Errors of the notation come from the core.
#pragma once

#include <memory>

#include "core/rule.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// The compiled pair. Lists may be any sequence of `str`; a `str` itself or an element of another type is a
/// TypeError, a breach of the notation a ValueError.
std::shared_ptr<const core::Rule> compiled_rule(PyObject* pattern, PyObject* replacement);

}  // namespace onnxgraft::py
