// The type of function objects: calling, binding, garbage collection.
//
// Calls come by vectorcall and reach the body without a tuple of arguments. Memory follows the interpreter's rules for
// types in modules: every owned reference is visited, and clearing is safe while finalizers still call the function.
#include "py/function.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "py/argument_binding.h"
#include "py/function_reflection.h"
#include "py/guard.h"
#include "py/session.h"

namespace onnxgraft::py {

namespace {

/// Calls the watch of an observed function: `watch(original, ...)`, the original bound to the first argument.
Ref call_watch(const FunctionObject& function, PyObject* const* stack, std::size_t flagged_count, PyObject* names) {
  const Py_ssize_t positional = PyVectorcall_NARGS(flagged_count);
  if (positional == 0) raise(PyExc_TypeError, "%.200s() needs self as its first argument", function.row->name);
  const Ref original = checked(PyMethod_New(function.original, stack[0]));
  std::vector<PyObject*> arguments(stack, stack + positional + (names == nullptr ? 0 : PyTuple_GET_SIZE(names)));
  arguments[0] = original.get();
  return checked(PyObject_Vectorcall(function.watch, arguments.data(), static_cast<std::size_t>(positional), names));
}

PyObject* call_function(PyObject* self, PyObject* const* stack, std::size_t flagged_count, PyObject* keyword_names) {
  return guarded([&] {
    const auto* function = reinterpret_cast<const FunctionObject*>(self);
    if (function->watch != nullptr) return call_watch(*function, stack, flagged_count, keyword_names);
    const BoundArguments bound(*function->row, stack, PyVectorcall_NARGS(flagged_count), keyword_names);
    return function->row->body(
        Call{function->module, bound.values(), bound.keywords(), function->owner, function->sharing.get()});
  });
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  auto* function = reinterpret_cast<FunctionObject*>(self);
  Py_VISIT(Py_TYPE(self));
  for (PyObject* held : {function->module, function->owner, function->dict, function->original, function->watch}) {
    Py_VISIT(held);
  }
  return 0;
}

/// Keeps the module, because finalizers may call the function while its cycle is collected. The module's own dict
/// breaks the cycle.
int clear(PyObject* self) {
  auto* function = reinterpret_cast<FunctionObject*>(self);
  Ref::steal(std::exchange(function->dict, nullptr));
  Ref::steal(std::exchange(function->owner, nullptr));
  Ref::steal(std::exchange(function->watch, nullptr));
  Ref::steal(std::exchange(function->original, nullptr));
  return 0;
}

void deallocate(PyObject* self) {
  PyObject_GC_UnTrack(self);
  auto* function = reinterpret_cast<FunctionObject*>(self);
  if (function->weak_references != nullptr) PyObject_ClearWeakRefs(self);
  clear(self);
  std::destroy_at(&function->sharing);
  Ref::steal(std::exchange(function->module, nullptr));
  Ref::steal(std::exchange(function->qualified_name, nullptr));
  const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
  PyObject_GC_Del(self);
}

/// As `function.__get__`: a method for an instance, the function itself for the class.
PyObject* bind_method(PyObject* self, PyObject* instance, PyObject* /*owner*/) {
  if (instance == nullptr || instance == Py_None) return Ref::borrow(self).release();
  return PyMethod_New(self, instance);
}

PyObject* represent(PyObject* self) {
  const auto* function = reinterpret_cast<const FunctionObject*>(self);
  return PyUnicode_FromFormat("<function %U at %p>", function->qualified_name, static_cast<void*>(self));
}

std::array<PyMemberDef, 4> members{{
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weak_references), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
}};

template <class Function>
void* slot(Function* function) {
  return reinterpret_cast<void*>(function);
}

}  // namespace

Ref make_function_type(PyObject* module) {
  std::array<PyType_Slot, 11> slots{{
      {Py_tp_dealloc, slot(deallocate)},
      {Py_tp_traverse, slot(traverse)},
      {Py_tp_clear, slot(clear)},
      {Py_tp_call, slot(PyVectorcall_Call)},
      {Py_tp_descr_get, slot(bind_method)},
      {Py_tp_repr, slot(represent)},
      {Py_tp_members, members.data()},
      {Py_tp_methods, reflection_methods()},
      {Py_tp_getset, reflection_attributes()},
      {0, nullptr},
      {0, nullptr},
  }};
  PyType_Spec description{
      function_type_name,
      static_cast<int>(sizeof(FunctionObject)),
      0,
      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
          Py_TPFLAGS_DISALLOW_INSTANTIATION,
      slots.data(),
  };
  return checked(PyType_FromModuleAndSpec(module, &description, nullptr));
}

namespace {

/// Every field is set before the collector may see the object.
Ref allocate(PyTypeObject* type, PyObject* module, const FunctionRow& row, Ref qualified_name) {
  auto* function = PyObject_GC_New(FunctionObject, type);
  if (function == nullptr) throw PythonError{};
  function->vectorcall = call_function;
  function->row = &row;
  function->module = Ref::borrow(module).release();
  function->owner = nullptr;
  function->qualified_name = qualified_name.release();
  function->dict = nullptr;
  function->weak_references = nullptr;
  function->original = nullptr;
  function->watch = nullptr;
  function->changes = row.changes;
  std::construct_at(&function->sharing);
  Ref result = Ref::steal(reinterpret_cast<PyObject*>(function));
  PyObject_GC_Track(result.get());
  return result;
}

}  // namespace

Ref make_function(PyObject* function_type, PyObject* module, const FunctionRow& row, std::string_view qualified_name) {
  return allocate(reinterpret_cast<PyTypeObject*>(function_type), module, row, text(qualified_name));
}

Ref copy_function(PyObject* function) {
  const auto* original = reinterpret_cast<const FunctionObject*>(function);
  Ref copy = allocate(Py_TYPE(function), original->module, *original->row, Ref::borrow(original->qualified_name));
  if (original->owner != nullptr) set_owner(copy.get(), original->owner);
  return copy;
}

void set_owner(PyObject* function, PyObject* owner) {
  auto* object = reinterpret_cast<FunctionObject*>(function);
  Ref::steal(std::exchange(object->owner, Ref::borrow(owner).release()));
}

const FunctionRow* row_of(PyObject* object) noexcept {
  if (Py_TYPE(object)->tp_dealloc != deallocate) return nullptr;
  return reinterpret_cast<const FunctionObject*>(object)->row;
}

bool is_observed(PyObject* function) noexcept {
  return reinterpret_cast<const FunctionObject*>(function)->watch != nullptr;
}

Ref call_sharing(PyObject* method, std::initializer_list<PyObject*> arguments, PyObject* keywords, Sharing* sharing) {
  if (PyMethod_Check(method) == 0 || row_of(PyMethod_Function(method)) == nullptr ||
      is_observed(PyMethod_Function(method))) {
    return checked(PyObject_Call(method, tuple(arguments).get(), keywords));
  }
  std::vector<PyObject*> stack{PyMethod_Self(method)};
  stack.insert(stack.end(), arguments.begin(), arguments.end());
  const auto positional = std::ssize(stack);
  const Ref names = checked(PyTuple_New(keywords == nullptr ? 0 : PyDict_Size(keywords)));
  PyObject* name = nullptr;
  PyObject* value = nullptr;
  for (Py_ssize_t at = 0; keywords != nullptr && PyDict_Next(keywords, &at, &name, &value) != 0;) {
    PyTuple_SET_ITEM(names.get(), std::ssize(stack) - positional, Ref::borrow(name).release());
    stack.push_back(value);
  }
  const auto* function = reinterpret_cast<const FunctionObject*>(PyMethod_Function(method));
  const BoundArguments bound(*function->row, stack.data(), positional, names.get());
  return function->row->body(Call{function->module, bound.values(), bound.keywords(), function->owner, sharing});
}

}  // namespace onnxgraft::py
