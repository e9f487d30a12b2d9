// Packs and unpacks scales.
//
// Bits are moved, never rounded: unpacking what was packed returns the same floats.
#include "quant/numpy/scales.h"

#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

namespace {

const InternedName element_type("UINT64");

}  // namespace

Ref pack_scales(PyObject* module, PyObject* scales) {
  const Ref bits = view(module, scales, names::uint32);
  return astype(module, bits.get(), names::uint64);
}

Ref unpack_scales(PyObject* module, PyObject* words) {
  const Ref bits = astype(module, words, names::uint32);
  return view(module, bits.get(), names::float32);
}

Ref make_scale_initializer(PyObject* module, PyObject* name, PyObject* words) {
  const Ref type = member(module, names::tensor_proto, element_type);
  const Ref shape = py::attribute(words, names::shape);
  return call_member(module, names::helper, names::make_tensor, {name, type.get(), shape.get(), words});
}

}  // namespace onnxgraft::quant
