// Binds the arguments of one call to a row's parameters.
//
// Counts in the messages include `self`, as the positional count of a method does. A call that lacks an
// argument or has one too many never reaches the function.
#pragma once

#include <array>
#include <span>

#include "py/function.h"

namespace onnxgraft::py {

class BoundArguments {
 public:
  /// Throws (TypeError set) if the call does not fit the row.
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

/// The value of a parameter that the caller left out.
Ref default_value(const Parameter& parameter);

}  // namespace onnxgraft::py
