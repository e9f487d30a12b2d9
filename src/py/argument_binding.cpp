// Binding in the order of the interpreter: positional arguments, keywords, defaults, then types.
//
// The order decides which error a wrong call gets. Values are borrowed from the call; only defaults are owned, since
// they are made for this call.
#include "py/argument_binding.h"

#include <utility>

namespace onnxgraft::py {

namespace {

std::size_t required_count(const FunctionRow& row) {
  std::size_t count = 0;
  for (const Parameter& parameter : row.parameters) count += parameter.fallback == Default::required ? 1 : 0;
  return count;
}

/// The text of the contract, with "at least", "at most" or "exactly".
[[noreturn]] void raise_arity(const FunctionRow& row, Py_ssize_t given) {
  const auto minimum = static_cast<Py_ssize_t>(required_count(row));
  const auto maximum = static_cast<Py_ssize_t>(row.parameters.size());
  const char* bound = given < minimum ? "at least" : "at most";
  if (minimum == maximum) bound = "exactly";
  const Py_ssize_t expected = given < minimum ? minimum : maximum;
  raise(PyExc_TypeError, "%.200s() takes %.8s %zd positional argument%.1s (%zd given)", row.name, bound, expected,
        expected == 1 ? "" : "s", given);
}

bool has_type(PyObject* value, ArgumentType type) {
  switch (type) {
    case ArgumentType::any:
      return true;
    case ArgumentType::dict_or_none:
      return value == Py_None || PyDict_Check(value) != 0;
    case ArgumentType::dict:
      return PyDict_Check(value) != 0;
  }
  return false;
}

}  // namespace

Ref default_value(const Parameter& parameter) {
  switch (parameter.fallback) {
    case Default::false_value:
      return boolean(false);
    case Default::text:
      return text(parameter.fallback_text);
    case Default::none:
    case Default::required:
      break;
  }
  return none();
}

BoundArguments::BoundArguments(const FunctionRow& row, PyObject* const* stack, Py_ssize_t positional,
                               PyObject* keyword_names)
    : count_(row.parameters.size()) {
  if (count_ > capacity) raise(PyExc_SystemError, "%s(): too many parameters", row.name);
  if (std::cmp_greater(positional, count_)) raise_arity(row, positional);
  for (Py_ssize_t index = 0; index < positional; ++index) values_[static_cast<std::size_t>(index)] = stack[index];
  if (row.collects_keywords) keywords_ = checked(PyDict_New());
  const Py_ssize_t keyword_count = keyword_names == nullptr ? 0 : PyTuple_GET_SIZE(keyword_names);
  for (Py_ssize_t index = 0; index < keyword_count; ++index) {
    bind_keyword(row, PyTuple_GET_ITEM(keyword_names, index), stack[positional + index]);
  }
  fill_defaults(row, positional);
  check_types(row);
}

void BoundArguments::bind_keyword(const FunctionRow& row, PyObject* name, PyObject* value) {
  for (std::size_t index = 0; index < count_; ++index) {
    if (PyUnicode_CompareWithASCIIString(name, row.parameters[index].name) != 0) continue;
    if (values_[index] != nullptr) {
      raise(PyExc_TypeError, "%.200s() got multiple values for keyword argument '%U'", row.name, name);
    }
    values_[index] = value;
    return;
  }
  if (!row.collects_keywords) {
    raise(PyExc_TypeError, "%.200s() got an unexpected keyword argument '%U'", row.name, name);
  }
  check(PyDict_SetItem(keywords_.get(), name, value));
}

void BoundArguments::fill_defaults(const FunctionRow& row, Py_ssize_t positional) {
  for (std::size_t index = 0; index < count_; ++index) {
    if (values_[index] != nullptr) continue;
    if (row.parameters[index].fallback == Default::required) raise_arity(row, positional);
    defaults_[index] = default_value(row.parameters[index]);
    values_[index] = defaults_[index].get();
  }
}

void BoundArguments::check_types(const FunctionRow& row) const {
  for (std::size_t index = 0; index < count_; ++index) {
    if (has_type(values_[index], row.parameters[index].type)) continue;
    raise(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected dict, got %.200s)",
          row.parameters[index].name, Py_TYPE(values_[index])->tp_name);
  }
}

}  // namespace onnxgraft::py
