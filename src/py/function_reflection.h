// What a function object shows of itself: names, annotations, signature, pickling by name.
//
// Everything is made from the row when it is asked for, so it costs nothing at import or at a call. The layout of the
// object is here, because only function.cpp, function_reflection.cpp and session.cpp may know it.
#pragma once

#include <Python.h>
#include <structmember.h>

#include "py/function.h"

namespace onnxgraft::py {

/// Layout of a function object.
struct FunctionObject {
  PyObject_HEAD vectorcallfunc vectorcall;
  const FunctionRow* row;
  PyObject* module;           // owned
  PyObject* owner;            // owned; the class, null outside of one
  PyObject* qualified_name;   // owned
  PyObject* dict;             // owned; null until something is set
  PyObject* weak_references;  // kept by the interpreter
  // Of an observed function, otherwise null:
  PyObject* original;  // owned
  PyObject* watch;     // owned
  // Of the function of a session:
  Changes changes;                   // the promise for this transformation; otherwise the row's
  std::unique_ptr<Sharing> sharing;  // otherwise null
};

PyMethodDef* reflection_methods();
PyGetSetDef* reflection_attributes();

}  // namespace onnxgraft::py
