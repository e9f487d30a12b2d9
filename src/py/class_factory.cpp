// The steps of a `class` statement: namespace, bases, metaclass, and the owner of each method.
//
// Bases and `abc.abstractmethod` are looked up in the module by name, so a class that a host replaces there is used.
#include "py/class_factory.h"

#include <string>

namespace onnxgraft::py {

namespace {

void set(const Ref& dict, const char* name, const Ref& value) {
  check(PyDict_SetItemString(dict.get(), name, value.get()));
}

Ref base_tuple(PyObject* module, const ClassRow& row) {
  const Ref bases = checked(PyList_New(0));
  for (const char* name : row.bases) {
    check(PyList_Append(bases.get(), checked(PyObject_GetAttrString(module, name)).get()));
  }
  return checked(PyList_AsTuple(bases.get()));
}

Ref string_list(const PatternList& list) {
  Ref strings = checked(PyList_New(0));
  for (const char* string : list.strings) check(PyList_Append(strings.get(), text(string).get()));
  return strings;
}

void add_lists(const Ref& names, const ClassRow& row) {
  if (row.lists.empty()) return;
  const Ref annotations = checked(PyDict_New());
  for (const PatternList& list : row.lists) {
    set(names, list.name, string_list(list));
    set(annotations, list.name, text("[str]"));
  }
  set(names, "__annotations__", annotations);
}

void add_methods(const Ref& names, PyObject* module, PyObject* function_type, const ClassRow& row) {
  for (const FunctionRow& method : row.methods) {
    Ref function = make_function(function_type, module, method, std::string(row.name) + "." + method.name);
    if (method.is_abstract) {
      const Ref mark = checked(PyObject_GetAttrString(module, "abstractmethod"));
      function = call(mark.get(), {function.get()});
    }
    set(names, method.name, function);
  }
}

}  // namespace

void add_class(PyObject* module, PyObject* function_type, const ClassRow& row) {
  const Ref names = checked(PyDict_New());
  set(names, "__module__", checked(PyObject_GetAttrString(module, "__name__")));
  set(names, "__qualname__", text(row.name));
  if (row.doc != nullptr) set(names, "__doc__", text(row.doc));
  add_lists(names, row);
  add_methods(names, module, function_type, row);

  const Ref bases = base_tuple(module, row);
  PyObject* metaclass = PyTuple_GET_SIZE(bases.get()) == 0
                            ? reinterpret_cast<PyObject*>(&PyType_Type)
                            : reinterpret_cast<PyObject*>(Py_TYPE(PyTuple_GET_ITEM(bases.get(), 0)));
  const Ref made = call(metaclass, {text(row.name).get(), bases.get(), names.get()});
  // `super()` without arguments does not exist in C++: a method finds the next one by its owner.
  for (const FunctionRow& method : row.methods) {
    set_owner(PyDict_GetItemString(names.get(), method.name), made.get());
  }
  check(PyObject_SetAttrString(module, row.name, made.get()));
}

void add_function(PyObject* module, PyObject* function_type, const FunctionRow& row) {
  const Ref function = make_function(function_type, module, row, row.name);
  check(PyObject_SetAttrString(module, row.name, function.get()));
}

}  // namespace onnxgraft::py
