// Who is believed, and how a session is made: a copy of the function with a promise and with shared state.
//
// The promise is computed for each transformation, because it depends on which methods its class overrides. A copy dies
// with its caller, so nothing remains that another thread or another call could meet.
#include "py/session.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "py/function_reflection.h"

namespace onnxgraft::py {

namespace {

const InternedName changes_attribute("changes");
const InternedName finish("finish");
const InternedName observed_name("observed");
const InternedName session("session");

constexpr std::array<std::string_view, 3> changes_names{"anything", "bias inputs", "contents"};

/// Any object may claim any name, but only C code can make a type that cannot be instantiated.
bool is_of_type(PyObject* object, std::string_view name) noexcept {
  const PyTypeObject* type = Py_TYPE(object);
  return PyType_HasFeature(Py_TYPE(object), Py_TPFLAGS_DISALLOW_INSTANTIATION) != 0 && type->tp_name == name;
}

/// Whether the method is a function of this module.
bool is_built_in(PyObject* transformation, const char* name) {
  const Ref method = Ref::steal(PyObject_GetAttrString(transformation, name));
  if (!method) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw PythonError{};
    PyErr_Clear();
    return false;
  }
  if (PyMethod_Check(method.get()) == 0 || PyMethod_Self(method.get()) != transformation) return false;
  const FunctionRow* row = row_of(PyMethod_Function(method.get()));
  return row != nullptr && std::string_view(row->name) == name;
}

/// What the function promises when it is called for this transformation.
Changes promised(PyObject* function, PyObject* transformation) {
  const auto& object = *reinterpret_cast<const FunctionObject*>(function);
  const FunctionRow& row = *object.row;
  if (!std::ranges::all_of(row.calls, [&](const char* name) { return is_built_in(transformation, name); })) {
    return Changes::anything;
  }
  if (!row.calls_inherited || row.changes == Changes::anything) return row.changes;
  auto* owner = reinterpret_cast<PyTypeObject*>(object.owner);
  if (owner == nullptr || PyType_IsSubtype(Py_TYPE(transformation), owner) == 0) return Changes::anything;
  const Ref method = inherited_method(object.owner, transformation, row.name);
  if (PyMethod_Check(method.get()) == 0 || row_of(PyMethod_Function(method.get())) == nullptr) return Changes::anything;
  return std::min(row.changes, promised(PyMethod_Function(method.get()), transformation));
}

}  // namespace

bool is_our_function(PyObject* object) noexcept { return is_of_type(object, function_type_name); }

std::string_view changes_name(Changes changes) { return changes_names[static_cast<std::size_t>(changes)]; }

Ref begin_session(PyObject* method, PyObject* graph) {
  if (PyMethod_Check(method) == 0 || !is_our_function(PyMethod_Function(method))) return {};
  const Ref function = call_method(PyMethod_Function(method), session, {PyMethod_Self(method), graph});
  return function.get() == Py_None ? Ref{} : checked(PyMethod_New(function.get(), PyMethod_Self(method)));
}

void finish_session(PyObject* session) { call_method(session, finish); }

Changes changes_of(PyObject* session) {
  const Ref name = attribute(session, changes_attribute);
  const auto* const found = std::ranges::find(changes_names, utf8(name.get()));
  return found == changes_names.end() ? Changes::anything : static_cast<Changes>(found - changes_names.begin());
}

Ref inherited_method(PyObject* owner, PyObject* self, const char* name) {
  const Ref parent = call(reinterpret_cast<PyObject*>(&PySuper_Type), {owner, self});
  return checked(PyObject_GetAttrString(parent.get(), name));
}

Ref observed(PyObject* method, PyObject* watch) {
  static const InternedName partial("partial");
  if (PyMethod_Check(method) == 0 || !is_our_function(PyMethod_Function(method))) {
    const Ref functools = checked(PyImport_ImportModule("functools"));
    return call_method(functools.get(), partial, {watch, method});
  }
  const Ref function = call_method(PyMethod_Function(method), observed_name, {watch});
  return checked(PyMethod_New(function.get(), PyMethod_Self(method)));
}

Ref observed_copy(PyObject* function, PyObject* watch) {
  Ref copy = copy_function(function);
  auto* object = reinterpret_cast<FunctionObject*>(copy.get());
  object->original = Ref::borrow(function).release();
  object->watch = Ref::borrow(watch).release();
  return copy;
}

Ref make_session(PyObject* function, PyObject* transformation, PyObject* graph) {
  if (const auto* object = reinterpret_cast<const FunctionObject*>(function); object->watch != nullptr) {
    const Ref inner = make_session(object->original, transformation, graph);
    return inner.get() == Py_None ? none() : observed_copy(inner.get(), object->watch);
  }
  const Changes changes = promised(function, transformation);
  if (changes == Changes::anything) return none();
  Ref copy = copy_function(function);
  auto* object = reinterpret_cast<FunctionObject*>(copy.get());
  object->changes = changes;
  if (object->row->share != nullptr) object->sharing = object->row->share(object->module, graph);
  return copy;
}

}  // namespace onnxgraft::py
