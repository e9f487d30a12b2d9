// Sessions: calls of one function that follow each other while nobody else edits the graph.
//
// A function of ours that says what it changes of a graph (`Changes`) can be asked for a session. What comes back is
// called in the function's place; its calls may share what they look up, and whoever asked need not look for other
// changes. Nothing is believed but of functions that this project made: any object may have any attribute. The
// promise belongs to the function, whatever class it is called for; what it calls on `self` has to be built in too.
//
// Modules do not know each other's types, so that a function is told by the name of its type, which only C code can
// give to a type that makes no instances.
#pragma once

#include <string_view>

#include "py/function.h"

namespace onnxgraft::py {

inline constexpr const char* function_type_name = "onnxgraft.builtin_function";
inline constexpr const char* observed_type_name = "onnxgraft.observed_function";

/// What is to be called in the place of `method`; empty where there is no promise to believe.
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

// For function objects alone.
Ref make_session(PyObject* function, PyObject* transformation, PyObject* graph);
Ref copy_function(PyObject* function);

// Observed functions, for a host that looks on while a transformation runs: something in front of a method that
// changes nothing of the graph, so that the method's promise still holds.

/// The type of such objects; once per module.
Ref make_observed_type(PyObject* module);
/// Calls `watch(original, ...)` where `original(...)` would be called.
Ref make_observed(PyObject* type, PyObject* original, PyObject* watch);

}  // namespace onnxgraft::py
