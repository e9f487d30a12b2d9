// Short, checked forms of the interpreter calls that the project uses everywhere.
//
// Every function throws PythonError on failure, so callers never test for null. Attribute names are interned once per
// process: a look-up by interned name costs about half of one by C string. Nothing here knows ONNX, except that a name
// must be UTF-8.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "py/ref.h"

namespace onnxgraft::py {

/// A `str` that lives as long as the process, made at its first use: `static const InternedName n{"op_type"}`.
class InternedName {
 public:
  explicit constexpr InternedName(const char* text) noexcept : text_(text) {}
  [[nodiscard]] PyObject* get() const {
    if (object_ == nullptr) object_ = checked(PyUnicode_InternFromString(text_)).release();
    return object_;
  }

 private:
  const char* text_;
  mutable PyObject* object_ = nullptr;  // owned by the process: never given back
};

inline Ref attribute(PyObject* object, const InternedName& name) {
  return checked(PyObject_GetAttr(object, name.get()));
}
/// The attribute, or an empty Ref if the object has none of that name.
Ref optional_attribute(PyObject* object, const InternedName& name);
inline void set_attribute(PyObject* object, const InternedName& name, PyObject* value) {
  check(PyObject_SetAttr(object, name.get(), value));
}
inline Ref item(PyObject* sequence, Py_ssize_t index) { return checked(PySequence_GetItem(sequence, index)); }
inline Py_ssize_t length(PyObject* object) { return check(PyObject_Size(object)); }
inline Ref iterator(PyObject* object) { return checked(PyObject_GetIter(object)); }
/// The next element, or an empty Ref at the end.
inline Ref next(PyObject* iterator) {
  Ref element = Ref::steal(PyIter_Next(iterator));
  if (!element && PyErr_Occurred() != nullptr) throw PythonError{};
  return element;
}

/// Calls `callable` with positional arguments, borrowed for the call.
Ref call(PyObject* callable, std::initializer_list<PyObject*> arguments);
/// Calls the method `name` of `object` with positional arguments.
Ref call_method(PyObject* object, const InternedName& name, std::initializer_list<PyObject*> arguments = {});
/// One keyword argument of a call.
struct Keyword {
  const InternedName& name;
  PyObject* value;
};
/// Calls the method `name` of `object` with positional and keyword arguments.
Ref call_method(PyObject* object, const InternedName& name, std::initializer_list<PyObject*> arguments,
                std::initializer_list<Keyword> keywords);

Ref text(std::string_view value);
/// Protobuf returns a text that is not UTF-8 as `bytes`. The error (ValueError) has no place yet: see bad_names.h.
struct NotUtf8 : PythonError {};
/// Whether protobuf would return the text as a `str`. The reader asks this for every name that it takes from bytes.
bool is_utf8(std::string_view text);
/// UTF-8 bytes of a `str`; valid while the object lives. NotUtf8 for `bytes`, anything else is a TypeError.
std::string_view utf8(PyObject* object);
Ref integer(std::int64_t value);
/// The value of a Python integer; OverflowError if it does not fit into 64 bits.
std::int64_t integer_value(PyObject* object);
Ref tuple(std::initializer_list<PyObject*> elements);
/// True as in Python's `left == right`.
inline bool equal(PyObject* left, PyObject* right) { return check(PyObject_RichCompareBool(left, right, Py_EQ)) != 0; }
/// True as in Python's `bool(object)`.
inline bool truth(PyObject* object) { return check(PyObject_IsTrue(object)) != 0; }

/// Whether `function` is written in Python in the module of that name. False if a host has replaced it.
bool is_written_in(PyObject* function, const char* module);

/// Unpacks exactly two elements, with the interpreter's own texts for a wrong number ("too many values to
/// unpack (expected 2)", "need more than 1 value to unpack"), both ValueError.
std::pair<Ref, Ref> unpack_pair(PyObject* iterable);
/// Unpacks exactly one element, same errors.
Ref unpack_one(PyObject* iterable);

}  // namespace onnxgraft::py
