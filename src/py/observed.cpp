// Observed functions (see session.h).
#include <Python.h>
#include <structmember.h>

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

#include "py/guard.h"
#include "py/session.h"

namespace onnxgraft::py {

namespace {

struct ObservedObject {
  PyObject_HEAD vectorcallfunc vectorcall;
  PyObject* original;  // owned
  PyObject* watch;     // owned
};

ObservedObject* observed(PyObject* object) { return reinterpret_cast<ObservedObject*>(object); }

PyObject* call_watch(PyObject* self, PyObject* const* stack, std::size_t flagged_count, PyObject* keyword_names) {
  return guarded([&] {
    const Py_ssize_t positional = PyVectorcall_NARGS(flagged_count);
    const Py_ssize_t keywords = keyword_names == nullptr ? 0 : PyTuple_GET_SIZE(keyword_names);
    std::vector<PyObject*> arguments{observed(self)->original};
    arguments.insert(arguments.end(), stack, stack + positional + keywords);
    return checked(PyObject_Vectorcall(observed(self)->watch, arguments.data(),
                                       static_cast<std::size_t>(positional) + 1, keyword_names));
  });
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(observed(self)->original);
  Py_VISIT(observed(self)->watch);
  return 0;
}

int clear(PyObject* self) {
  Ref::steal(std::exchange(observed(self)->original, nullptr));
  Ref::steal(std::exchange(observed(self)->watch, nullptr));
  return 0;
}

void deallocate(PyObject* self) {
  PyObject_GC_UnTrack(self);
  clear(self);
  const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
  PyObject_GC_Del(self);
}

/// What it has no attribute for, the original answers, as a bound method asks its function.
PyObject* get_attribute(PyObject* self, PyObject* name) {
  PyObject* found = PyObject_GenericGetAttr(self, name);
  if (found != nullptr || observed(self)->original == nullptr) return found;
  if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) return nullptr;
  PyErr_Clear();
  return PyObject_GetAttr(observed(self)->original, name);
}

PyObject* around(PyObject* self, PyObject* original) {
  return guarded(
      [&] { return make_observed(reinterpret_cast<PyObject*>(Py_TYPE(self)), original, observed(self)->watch); });
}

std::array<PyMethodDef, 2> methods{{
    {"around", around, METH_O, "The same in front of another function."},
    {nullptr, nullptr, 0, nullptr},
}};

std::array<PyMemberDef, 3> members{{
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(ObservedObject, vectorcall), READONLY, nullptr},
    {"__wrapped__", T_OBJECT_EX, offsetof(ObservedObject, original), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
}};

template <class Function>
void* slot(Function* function) {
  return reinterpret_cast<void*>(function);
}

}  // namespace

Ref make_observed_type(PyObject* module) {
  std::array<PyType_Slot, 8> slots{{
      {Py_tp_dealloc, slot(deallocate)},
      {Py_tp_traverse, slot(traverse)},
      {Py_tp_clear, slot(clear)},
      {Py_tp_call, slot(PyVectorcall_Call)},
      {Py_tp_getattro, slot(get_attribute)},
      {Py_tp_members, members.data()},
      {Py_tp_methods, methods.data()},
      {0, nullptr},
  }};
  PyType_Spec description{
      observed_type_name,
      static_cast<int>(sizeof(ObservedObject)),
      0,
      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_DISALLOW_INSTANTIATION,
      slots.data(),
  };
  return checked(PyType_FromModuleAndSpec(module, &description, nullptr));
}

Ref make_observed(PyObject* type, PyObject* original, PyObject* watch) {
  auto* object = PyObject_GC_New(ObservedObject, reinterpret_cast<PyTypeObject*>(type));
  if (object == nullptr) throw PythonError{};
  object->vectorcall = call_watch;
  object->original = Ref::borrow(original).release();
  object->watch = Ref::borrow(watch).release();
  Ref result = Ref::steal(reinterpret_cast<PyObject*>(object));
  PyObject_GC_Track(result.get());
  return result;
}

}  // namespace onnxgraft::py
