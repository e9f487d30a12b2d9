// One call of a quantizing callback, where its transformation's own methods are the built-in ones.
//
// Then nobody can tell how they are called, so that they are called as C++ functions. Of the old tensors they want to
// know element type and shape alone, which mostly can be told without making arrays of them; two methods that ask for
// the same weight in a row share the answer.
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

/// An initializer: the code of its element type, and its shape, a tuple.
struct TensorKind {
  py::Ref type;
  py::Ref shape;
};

/// Lives as long as the callback's call. Inside, `call_own` and `describe` take the short way if the methods are built
/// in.
class QuantizingCall {
 public:
  explicit QuantizingCall(const py::Call& callback);
  ~QuantizingCall();
  QuantizingCall(const QuantizingCall&) = delete;
  QuantizingCall& operator=(const QuantizingCall&) = delete;

  /// What `get_init(graph, (name,))` would tell. Null unless the innermost call under way in this thread has built-in
  /// methods: then the caller is to ask `get_init` itself, and unpack its answer.
  static const TensorKind* describe(PyObject* module, PyObject* graph, PyObject* name);
  [[nodiscard]] bool is_built_in() const noexcept { return built_in_; }
  /// Whether the innermost call is one of this transformation, with built-in methods.
  static bool is_direct(PyObject* transformation) noexcept;

 private:
  QuantizingCall* outer_;
  PyObject* transformation_;
  bool built_in_;
  py::Ref graph_;
  py::Ref name_;
  TensorKind kind_;  // of that name in that graph, the last that was asked for
};

}  // namespace onnxgraft::quant
