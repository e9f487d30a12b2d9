// The catalogue: every class of the module, one row each, in the order of their definition.
//
// The module makes the classes from it. Rows are data: nothing in this folder computes anything.
#pragma once

#include <span>

#include "py/class_factory.h"

namespace onnxgraft::quant {

std::span<const py::ClassRow* const> catalogue();

}  // namespace onnxgraft::quant
