// One reading of a weight for the two methods that ask for it in a row: whether it is quantized already, and what shape
// it has. A weight is copied when it is read, which for large ones costs as much as drawing the new one.
#pragma once

#include "py/function.h"
#include "py/objects.h"

namespace onnxgraft::quant {

/// While it lives, the first `get_init` of the callback is remembered, and the second one for the same graph and
/// name answered from that.
///
/// Active only where nobody can tell: `get_init` is one that promises to answer alike (`repeatable`), and all methods
/// that run in between are the built-in ones.
class SharedLookUp {
 public:
  explicit SharedLookUp(const py::Call& callback);
  ~SharedLookUp();
  SharedLookUp(const SharedLookUp&) = delete;
  SharedLookUp& operator=(const SharedLookUp&) = delete;

  /// `get_init(graph, (name,))`, by way of the innermost one that lives in this thread.
  static py::Ref look_up(PyObject* module, PyObject* graph, const py::Ref& name);

 private:
  SharedLookUp* outer_;
  bool active_;
  py::Ref graph_;
  py::Ref name_;
  py::Ref found_;
};

}  // namespace onnxgraft::quant
