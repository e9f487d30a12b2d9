// Sessions: calls of one function that follow each other while nothing else edits the graph.
//
// A function of ours that says what it changes of a graph (`Changes`) can be asked for a session. What comes back is
// called instead of the function; its calls may share what they look up, and the caller need not look for other
// changes. Nothing is believed but of functions that this project made: any object may have any attribute. The
// promise belongs to the function, whatever class it is called for; what it calls on `self` has to be built in too.
//
// Modules do not know each other's types, so that a function is recognised by the name of its type, which only C code
// can give to a type that makes no instances.
#pragma once

#include <string_view>

#include "py/function.h"

namespace onnxgraft::py {

inline constexpr const char* function_type_name = "onnxgraft.builtin_function";

/// What is to be called instead of `method`; empty if there is no promise to believe.
Ref begin_session(PyObject* method, PyObject* graph);
/// Has the session do what it has put off; called after an error too.
void finish_session(PyObject* session);
/// What the calls of the session change.
Changes changes_of(PyObject* session);
std::string_view changes_name(Changes changes);

/// Whether it is a function that one of our modules made.
bool is_our_function(PyObject* object) noexcept;

/// The next method of that name after the class, as `super(owner, self)` finds it.
Ref inherited_method(PyObject* owner, PyObject* self, const char* name);

/// A method that calls `watch(method, ...)`, for a host that looks on while a transformation runs. A method of ours
/// keeps its promise: `watch` must not edit the graph.
Ref observed(PyObject* method, PyObject* watch);

// For function objects alone.
Ref make_session(PyObject* function, PyObject* transformation, PyObject* graph);
Ref copy_function(PyObject* function);
/// A copy that calls `watch` with the function, bound, before its arguments.
Ref observed_copy(PyObject* function, PyObject* watch);

}  // namespace onnxgraft::py
