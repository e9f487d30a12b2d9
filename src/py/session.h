// Sessions: a run of calls of one function, during which only these calls edit the graph.
//
// `begin_session` returns a method to call instead of the original. Its calls share what they look up, and the caller
// may rely on the function's promise (`Changes`) instead of checking the graph. Only functions made by this project are
// believed, and only if the methods that they call on `self` are built in too: any object may have any attribute.
//
// The modules do not know each other's types. They recognise a function by the name of its type, which only C code can
// set for a type that cannot be instantiated.
#pragma once

#include <string_view>

#include "py/function.h"

namespace onnxgraft::py {

inline constexpr const char* function_type_name = "onnxgraft.builtin_function";

/// The method to call instead of `method`; empty if it makes no promise. Called once per round by the pass, and per
/// `apply` for the pass itself.
Ref begin_session(PyObject* method, PyObject* graph);
/// Lets the session complete what its calls have postponed. Must be called after an error too.
void finish_session(PyObject* session);
/// What the calls of the session change at most.
Changes changes_of(PyObject* session);
std::string_view changes_name(Changes changes);

/// Whether it is a function that one of our modules made.
bool is_our_function(PyObject* object) noexcept;

/// The next method of that name after the class, as `super(owner, self)` finds it.
Ref inherited_method(PyObject* owner, PyObject* self, const char* name);

/// A method that calls `watch(method, ...)`, for a host that records what a transformation does. A method of this
/// project keeps its promise, so `watch` must not edit the graph.
Ref observed(PyObject* method, PyObject* watch);

// For function objects only.
Ref make_session(PyObject* function, PyObject* transformation, PyObject* graph);
Ref copy_function(PyObject* function);
/// A copy that calls `watch` with the function, bound, before its arguments.
Ref observed_copy(PyObject* function, PyObject* watch);

}  // namespace onnxgraft::py
