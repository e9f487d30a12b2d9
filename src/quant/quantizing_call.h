// One call of a quantizing callback, where its transformation's own methods are the built-in ones.
//
// Then nobody can tell how they are called, so that they are called as C++ functions, and two of them that ask for the
// same weight in a row (is it quantized already; what shape has it) share one reading of it: a weight is copied when it
// is read, which for large ones costs as much as drawing the new one.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "py/function.h"
#include "py/objects.h"

namespace onnxgraft::quant {

/// The methods of the quantizing classes that their callbacks call.
enum class OwnMethod : std::uint8_t {
  check_current_precision,
  update_tesselquant,
  update_operators,
  update_weights,
  update_bias,
  update_tesseldequant,
};

/// Calls the method of `call`'s transformation. `keywords` follow the order of the method's parameters, and with
/// `arguments` give all of them.
py::Ref call_own(const py::Call& call, OwnMethod method, std::initializer_list<PyObject*> arguments,
                 std::initializer_list<py::Keyword> keywords);

/// Whether all of these methods are built in, and `get_init` promises to answer alike when asked twice (`repeatable`).
bool methods_are_built_in(PyObject* module, PyObject* transformation);

/// Lives as long as the callback's call. Inside, `call_own` takes the short way, and the first `get_init` is
/// remembered, if the methods are built in.
class QuantizingCall {
 public:
  explicit QuantizingCall(const py::Call& callback);
  ~QuantizingCall();
  QuantizingCall(const QuantizingCall&) = delete;
  QuantizingCall& operator=(const QuantizingCall&) = delete;

  /// `get_init(graph, (name,))`, by way of the innermost call under way in this thread.
  static py::Ref look_up(PyObject* module, PyObject* graph, const py::Ref& name);
  /// Whether the innermost call is one of this transformation, with built-in methods.
  static bool is_direct(PyObject* transformation) noexcept;

 private:
  QuantizingCall* outer_;
  PyObject* transformation_;
  bool built_in_;
  py::Ref graph_;
  py::Ref name_;
  py::Ref found_;
};

}  // namespace onnxgraft::quant
