// Binds the arguments of one call to the parameters of a row.
//
// A call that lacks an argument, has one too many or one of the wrong type raises TypeError and never reaches the
// function. Counts in the messages include `self`, as in the interpreter's own messages for methods. The texts are part
// of the contract with users and stay as they are.
#pragma once

#include <array>
#include <span>

#include "py/function.h"

namespace onnxgraft::py {

class BoundArguments {
 public:
  /// Throws (TypeError set) if the call does not fit the row. The parameters are those of a vectorcall, so a call makes
  /// no tuple of its arguments.
  BoundArguments(const FunctionRow& row, PyObject* const* stack, Py_ssize_t positional, PyObject* keyword_names);

  [[nodiscard]] std::span<PyObject* const> values() const { return {values_.data(), count_}; }
  [[nodiscard]] PyObject* keywords() const { return keywords_.get(); }

 private:
  void bind_keyword(const FunctionRow& row, PyObject* name, PyObject* value);
  void fill_defaults(const FunctionRow& row, Py_ssize_t positional);
  void check_types(const FunctionRow& row) const;

  static constexpr std::size_t capacity = 8;
  std::size_t count_;
  std::array<PyObject*, capacity> values_{};  // borrowed from the call or from `defaults_`
  std::array<Ref, capacity> defaults_;
  Ref keywords_;
};

/// The value of a parameter that the caller omitted. The reflection shows the same values in signatures.
Ref default_value(const Parameter& parameter);

}  // namespace onnxgraft::py
