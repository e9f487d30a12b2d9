// What a function object shows of itself: names, annotations, signature, pickling by name.
//
// Everything is made from the row when it is asked for, so it costs nothing at import or call. The layout of the object
// is here because three files share it.
#pragma once

#include <Python.h>
#include <structmember.h>

#include "py/function.h"

namespace onnxgraft::py {

/// Layout of a function object; only function*.cpp and session.cpp know it.
struct FunctionObject {
  PyObject_HEAD vectorcallfunc vectorcall;
  const FunctionRow* row;
  PyObject* module;           // owned
  PyObject* owner;            // owned; the class, null outside of one
  PyObject* qualified_name;   // owned
  PyObject* dict;             // owned; null until something is set
  PyObject* weak_references;  // kept by the interpreter
  // Of an observed function; null elsewhere:
  PyObject* original;  // owned
  PyObject* watch;     // owned
  // Of the function of a session:
  Changes changes;                   // what is promised; else what the row says
  std::unique_ptr<Sharing> sharing;  // null elsewhere
};

PyMethodDef* reflection_methods();
PyGetSetDef* reflection_attributes();

}  // namespace onnxgraft::py
