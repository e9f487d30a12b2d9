// Function objects of the three modules.
//
// A `FunctionRow` describes a function without its work: name, parameters, annotations, promises. The object made from
// it binds arguments, raises arity errors, binds as a method, and looks to `inspect`, `help` and `pickle` like a
// function written in Python. Rows are constants and outlive every object. Bodies see a `Call` and nothing of this.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

#include "py/objects.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// The value of a parameter that the caller omits.
enum class Default { required, false_value, none, text };

/// The type test of an argument. It runs before the function, so a wrong type changes nothing.
enum class ArgumentType { any, dict, dict_or_none };

struct Parameter {
  const char* name;
  const char* annotation = nullptr;  // text of the annotation; none if null
  Default fallback = Default::required;
  const char* fallback_text = nullptr;  // for Default::text
  ArgumentType type = ArgumentType::any;
};

/// What a function may change of a graph that it gets, from most to least. The pass asks the callback: with `anything`
/// it must compare the node list after every call, with less it need not.
enum class Changes : std::uint8_t {
  anything,
  bias_inputs,  // attributes and initializers, and new initializers become inputs of `Conv` nodes
  contents,     // attributes and initializers only
};

/// What the calls of one session share, for example a view of the graph. It dies with the session.
class Sharing {
 public:
  Sharing() = default;
  virtual ~Sharing() = default;
  Sharing(const Sharing&) = delete;
  Sharing& operator=(const Sharing&) = delete;
  /// Completes work that calls have postponed. Called after the last call, and after an error.
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
  /// The promise for sessions (see session.h). Functions that may change anything have no sessions.
  Changes changes = Changes::anything;
  /// Methods of `self` that it calls. A class that overrides one of them voids the promise.
  std::span<const char* const> calls;
  /// It calls the method of its own name that `super()` finds. The promise is then the weaker of the two.
  bool calls_inherited = false;
  /// What the calls of a session share; null if they share nothing.
  std::unique_ptr<Sharing> (*share)(PyObject* module, PyObject* graph) = nullptr;
  const char* doc = nullptr;
};

/// Makes the type of the module's function objects; once per module.
Ref make_function_type(PyObject* module);

/// Makes a function object from a row that outlives it. `qualified_name` is "Class.method" for a method.
Ref make_function(PyObject* function_type, PyObject* module, const FunctionRow& row, std::string_view qualified_name);

/// Sets the class of a method, for `super()`. Called once the class is made.
void set_owner(PyObject* function, PyObject* owner);

/// The row of a function object of this module; null for any other object. It shows whether a class still has the
/// built-in implementation of a method.
const FunctionRow* row_of(PyObject* object) noexcept;

/// Whether calls of the function, which has a row, go through a watch (see `observed`).
bool is_observed(PyObject* function) noexcept;

/// Calls a method with positional arguments and a dict of further ones (or null). A function of this module also gets
/// `sharing`, any other method is called as Python would. Built-in callbacks use it for the methods of
/// `self` and for the one that they inherit.
Ref call_sharing(PyObject* method, std::initializer_list<PyObject*> arguments, PyObject* keywords, Sharing* sharing);

}  // namespace onnxgraft::py
