// Scales of dequantize nodes: an initializer of 64-bit words, each with the bits of one 32-bit float in its low half.
//
// The only place that knows this format.
#pragma once

#include "py/objects.h"

namespace onnxgraft::quant {

/// float32 array -> uint64 array of the same shape, high halves zero.
py::Ref pack_scales(PyObject* module, PyObject* scales);

/// Array of words -> float32 array of the same shape; high halves are dropped.
py::Ref unpack_scales(PyObject* module, PyObject* words);

/// Packed scales as an initializer of their shape, the words in the typed field.
py::Ref make_scale_initializer(PyObject* module, PyObject* name, PyObject* words);

}  // namespace onnxgraft::quant
