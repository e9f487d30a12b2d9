// Attributes and methods of function objects.
//
// `inspect.signature`, `help` and the stub test must see the same as for a function written in Python. `session`,
// `finish` and `observed` are methods because the modules do not know each other's types and meet through Python calls.
#include "py/function_reflection.h"

#include <array>

#include "py/argument_binding.h"
#include "py/guard.h"
#include "py/session.h"

namespace onnxgraft::py {

namespace {

const FunctionObject& function_of(PyObject* self) { return *reinterpret_cast<const FunctionObject*>(self); }

PyObject* get_name(PyObject* self, void* /*closure*/) {
  return guarded([&] { return text(function_of(self).row->name); });
}

PyObject* get_qualified_name(PyObject* self, void* /*closure*/) {
  return Ref::borrow(function_of(self).qualified_name).release();
}

PyObject* get_module(PyObject* self, void* /*closure*/) {
  return guarded([&] {
    static const InternedName name("__name__");
    if (function_of(self).module == nullptr) return none();
    return attribute(function_of(self).module, name);
  });
}

PyObject* get_doc(PyObject* self, void* /*closure*/) {
  return guarded([&] {
    const char* doc = function_of(self).row->doc;
    return doc == nullptr ? none() : text(doc);
  });
}

PyObject* get_annotations(PyObject* self, void* /*closure*/) {
  return guarded([&] {
    const FunctionRow& row = *function_of(self).row;
    Ref annotations = checked(PyDict_New());
    for (const Parameter& parameter : row.parameters) {
      if (parameter.annotation == nullptr) continue;
      check(PyDict_SetItemString(annotations.get(), parameter.name, text(parameter.annotation).get()));
    }
    if (row.result_annotation != nullptr) {
      check(PyDict_SetItemString(annotations.get(), "return", text(row.result_annotation).get()));
    }
    return annotations;
  });
}

PyObject* get_defaults(PyObject* self, void* /*closure*/) {
  return guarded([&] {
    const Ref values = checked(PyList_New(0));
    for (const Parameter& parameter : function_of(self).row->parameters) {
      if (parameter.fallback == Default::required) continue;
      check(PyList_Append(values.get(), default_value(parameter).get()));
    }
    return length(values.get()) == 0 ? none() : checked(PyList_AsTuple(values.get()));
  });
}

/// One `inspect.Parameter`.
Ref signature_parameter(PyObject* inspect, const char* name, const char* kind, const Parameter* parameter) {
  const Ref type = checked(PyObject_GetAttrString(inspect, "Parameter"));
  const Ref kind_value = checked(PyObject_GetAttrString(type.get(), kind));
  const Ref positional = tuple({text(name).get(), kind_value.get()});
  const Ref keywords = checked(PyDict_New());
  if (parameter != nullptr && parameter->annotation != nullptr) {
    check(PyDict_SetItemString(keywords.get(), "annotation", text(parameter->annotation).get()));
  }
  if (parameter != nullptr && parameter->fallback != Default::required) {
    check(PyDict_SetItemString(keywords.get(), "default", default_value(*parameter).get()));
  }
  return checked(PyObject_Call(type.get(), positional.get(), keywords.get()));
}

PyObject* get_signature(PyObject* self, void* /*closure*/) {
  return guarded([&] {
    const FunctionRow& row = *function_of(self).row;
    const Ref inspect = checked(PyImport_ImportModule("inspect"));
    const Ref parameters = checked(PyList_New(0));
    for (const Parameter& parameter : row.parameters) {
      const Ref entry = signature_parameter(inspect.get(), parameter.name, "POSITIONAL_OR_KEYWORD", &parameter);
      check(PyList_Append(parameters.get(), entry.get()));
    }
    if (row.collects_keywords) {
      const Ref entry = signature_parameter(inspect.get(), "kwargs", "VAR_KEYWORD", nullptr);
      check(PyList_Append(parameters.get(), entry.get()));
    }
    const Ref keywords = checked(PyDict_New());
    if (row.result_annotation != nullptr) {
      check(PyDict_SetItemString(keywords.get(), "return_annotation", text(row.result_annotation).get()));
    }
    const Ref type = checked(PyObject_GetAttrString(inspect.get(), "Signature"));
    return checked(PyObject_Call(type.get(), tuple({parameters.get()}).get(), keywords.get()));
  });
}

PyObject* get_changes(PyObject* self, void* /*closure*/) {
  return guarded([&] { return text(changes_name(function_of(self).changes)); });
}

/// A function is pickled as its qualified name, like one written in Python.
PyObject* reduce(PyObject* self, PyObject* /*unused*/) { return get_qualified_name(self, nullptr); }

PyObject* session(PyObject* self, PyObject* arguments) {
  return guarded([&] {
    PyObject* transformation = nullptr;
    PyObject* graph = nullptr;
    if (PyArg_UnpackTuple(arguments, "session", 2, 2, &transformation, &graph) == 0) throw PythonError{};
    return make_session(self, transformation, graph);
  });
}

PyObject* finish(PyObject* self, PyObject* /*unused*/) {
  return guarded([&] {
    const FunctionObject& function = function_of(self);
    if (function.original != nullptr) finish_session(function.original);
    if (function.sharing) function.sharing->finish();
    return none();
  });
}

PyObject* observe(PyObject* self, PyObject* watch) {
  return guarded([&] { return observed_copy(self, watch); });
}

std::array<PyMethodDef, 5> methods{{
    {"__reduce__", reduce, METH_NOARGS, "Pickled by name."},
    {"session", session, METH_VARARGS, "(self, graph) -> this function for calls without other edits in between."},
    {"finish", finish, METH_NOARGS, "Ends a session."},
    {"observed", observe, METH_O, "(watch) -> a function that calls watch(this function, ...)."},
    {nullptr, nullptr, 0, nullptr},
}};

std::array<PyGetSetDef, 10> attributes{{
    {"__name__", get_name, nullptr, nullptr, nullptr},
    {"__qualname__", get_qualified_name, nullptr, nullptr, nullptr},
    {"__module__", get_module, nullptr, nullptr, nullptr},
    {"__doc__", get_doc, nullptr, nullptr, nullptr},
    {"__annotations__", get_annotations, nullptr, nullptr, nullptr},
    {"__defaults__", get_defaults, nullptr, nullptr, nullptr},
    {"__signature__", get_signature, nullptr, nullptr, nullptr},
    {"changes", get_changes, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
}};

}  // namespace

PyMethodDef* reflection_methods() { return methods.data(); }
PyGetSetDef* reflection_attributes() { return attributes.data(); }

}  // namespace onnxgraft::py
