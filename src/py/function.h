// Function objects of the three modules.
//
// A `FunctionRow` says all about a function but its work: name, parameters, annotations. The object made
// from it binds arguments, words its arity errors, binds as a method, and shows itself to `inspect`, `help`
// and `pickle` like a function written in Python.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
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

/// What a function changes of the graph that it is given, beyond what it was asked to: from all to least.
enum class Changes : std::uint8_t {
  anything,
  bias_inputs,  // attributes and initializers, and new initializers become inputs of `Conv` nodes
  contents,     // attributes and initializers only
};

/// What the calls of one session share.
class Sharing {
 public:
  Sharing() = default;
  virtual ~Sharing() = default;
  Sharing(const Sharing&) = delete;
  Sharing& operator=(const Sharing&) = delete;
  /// Does what was put off; called after the last call, and once more after an error.
  virtual void finish() {}
};

/// One call: `arguments` in the order of the row's parameters (borrowed, defaults filled in), `keywords` the
/// dict of further keyword arguments (null unless the row collects them), `module` the defining module, `owner` the
/// class that the function was made for (null outside of classes), `sharing` what the session shares (null outside of
/// one).
struct Call {
  PyObject* module;
  std::span<PyObject* const> arguments;
  PyObject* keywords = nullptr;
  PyObject* owner = nullptr;
  Sharing* sharing = nullptr;

  PyObject* operator[](std::size_t index) const { return arguments[index]; }
};

struct FunctionRow {
  const char* name;
  std::span<const Parameter> parameters;
  Ref (*body)(const Call&);
  const char* result_annotation = nullptr;
  bool collects_keywords = false;  // has `**kwargs`
  bool is_abstract = false;
  /// What it changes while a session lasts (see session.h); functions that may change anything have none.
  Changes changes = Changes::anything;
  /// Methods of `self` that it calls: overriding one withdraws the promise.
  std::span<const char* const> calls;
  /// It calls the method of its own name that `super()` finds, and promises no more than that one does.
  bool calls_inherited = false;
  /// What the calls of a session share; null if they share nothing.
  std::unique_ptr<Sharing> (*share)(PyObject* module, PyObject* graph) = nullptr;
  const char* doc = nullptr;
};

/// Makes the type of the module's function objects; once per module.
Ref make_function_type(PyObject* module);

/// Makes a function object from a row that outlives it. `qualified_name` is "Class.method" for a method.
Ref make_function(PyObject* function_type, PyObject* module, const FunctionRow& row, std::string_view qualified_name);

/// Tells a method whose class it is of, for `super()`; once the class is made.
void set_owner(PyObject* function, PyObject* owner);

/// The row of a function object of this module, null for any other object: lets a caller see whether
/// a class still has the built-in implementation of a method.
const FunctionRow* row_of(PyObject* object) noexcept;

/// Whether something looks on when the function, which has a row, is called.
bool is_observed(PyObject* function) noexcept;

/// Calls a method with positional arguments and a dict of further ones (or null). A function of this module gets what
/// the calls of the session share.
Ref call_sharing(PyObject* method, std::initializer_list<PyObject*> arguments, PyObject* keywords, Sharing* sharing);

}  // namespace onnxgraft::py
