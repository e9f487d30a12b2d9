#include "quant/quantize_attributes.h"

#include "py/message_list.h"
#include "quant/host.h"
#include "quant/names.h"
#include "quant/quantizing_call.h"
#include "quant/round.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

Ref make_attributes(PyObject* module) {
  const Ref offset = make_attribute(module, names::offset, py::checked(PyFloat_FromDouble(0.0)).get());
  const Ref scale = make_attribute(module, names::scale, py::checked(PyFloat_FromDouble(1.0)).get());
  return py::tuple({scale.get(), offset.get()});
}

/// A node like `node` that has these attributes and nothing else, as bytes.
Ref encoded(PyObject* node, PyObject* attributes) {
  static const InternedName serialize("SerializeToString");
  const Ref empty = py::call(reinterpret_cast<PyObject*>(Py_TYPE(node)), {});
  extend(py::attribute(empty.get(), names::attribute).get(), attributes);
  return py::call_method(empty.get(), serialize);
}

/// The round in which all nodes can get copies of the same two attributes: nobody could tell, or wants another kind.
Round* sharing_round(const Call& call, PyObject* graph) {
  Round* round = QuantizingCall::is_direct(call[0]) ? Round::on(graph) : nullptr;
  if (round == nullptr || !py::is_message_list(py::attribute(graph, names::node).get())) return nullptr;
  const Ref make_attribute = member(call.module, names::helper, names::make_attribute);
  return py::is_written_in(make_attribute.get(), "onnx.helper") ? round : nullptr;
}

}  // namespace

void add_quantize_attributes(const Call& call, PyObject* graph, PyObject* node) {
  static const InternedName merge("MergeFromString");
  Round* round = sharing_round(call, graph);
  if (round == nullptr) {
    extend(py::attribute(node, names::attribute).get(), make_attributes(call.module).get());
    return;
  }
  Ref& bytes = round->quantize_attributes();
  if (!bytes) bytes = encoded(node, make_attributes(call.module).get());
  py::call_method(node, merge, {bytes.get()});
}

}  // namespace onnxgraft::quant
