// Function objects of the three modules.
//
// A `FunctionRow` says all about a function but its work: name, parameters, annotations. The object made
// from it binds arguments, words its arity errors, binds as a method, and shows itself to `inspect`, `help`
// and `pickle` like a function written in Python.
#pragma once

#include <span>

#include "py/objects.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// What a parameter gets when the caller leaves it out.
enum class Default { required, false_value, none, text };

/// Type test of an argument, made before the function runs.
enum class ArgumentType { any, dict, dict_or_none };

struct Parameter {
  const char* name;
  const char* annotation = nullptr;  // text of the annotation; none if null
  Default fallback = Default::required;
  const char* fallback_text = nullptr;  // for Default::text
  ArgumentType type = ArgumentType::any;
};

/// One call: `arguments` in the order of the row's parameters (borrowed, defaults filled in), `keywords` the
/// dict of further keyword arguments (null unless the row collects them), `module` the defining module.
struct Call {
  PyObject* module;
  std::span<PyObject* const> arguments;
  PyObject* keywords;

  PyObject* operator[](std::size_t index) const { return arguments[index]; }
};

struct FunctionRow {
  const char* name;
  std::span<const Parameter> parameters;
  Ref (*body)(const Call&);
  const char* result_annotation = nullptr;
  bool collects_keywords = false;  // has `**kwargs`
  bool is_abstract = false;
  /// A promise of a callback, shown as the attribute `keeps_nodes`: it adds, removes and moves no node and, but for
  /// initializers that are new, does not change what nodes read.
  bool keeps_nodes = false;
  /// The same, `keeps_links`, of one that leaves names, inputs and outputs of all nodes alone.
  bool keeps_links = false;
  /// The same, `is_local`, of one that keeps links and looks at no other nodes than those it is given, nor at where
  /// they stand.
  bool is_local = false;
  /// What calls that follow each other share, made before the first of them and given up behind the last; in between,
  /// nobody else changes the graph. For a callback that keeps nodes these are the calls of one round, for the method
  /// that runs a pass those of one `apply`. Null if they share nothing.
  Ref (*begin_sharing)(PyObject* transformation, PyObject* graph) = nullptr;
  /// To be called behind the last of these calls, and again if it raised: does what was put off until then.
  void (*end_sharing)(PyObject* graph) = nullptr;
  /// Of a callback that keeps nodes: whether it will refuse an occurrence, told from (self, graph, the dict of the
  /// pattern's links) before anything is replaced. Null if only the callback itself can tell.
  bool (*foresees_refusal)(const Call& call) = nullptr;
  /// Of a look-up of initializers that answers alike when asked again before anything changed: what it would say of
  /// (graph, name), told without making an array, as (code of the element type, shape); None where it cannot tell.
  /// `repeatable` shows whether a function has it.
  Ref (*describe)(const Call& call) = nullptr;
  const char* doc = nullptr;
};

/// Makes the type of the module's function objects; once per module.
Ref make_function_type(PyObject* module);

/// Makes a function object from a row that outlives it. `qualified_name` is "Class.method" for a method.
Ref make_function(PyObject* function_type, PyObject* module, const FunctionRow& row, std::string_view qualified_name);

/// The row behind a function object of this module, null for any other object: lets a caller see whether
/// a class still has the built-in implementation of a method.
const FunctionRow* row_of(PyObject* object) noexcept;

}  // namespace onnxgraft::py
