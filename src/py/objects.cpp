// The longer ones of the helpers.
//
// Calls go through vectorcall with arguments on the stack, because callbacks make several per occurrence and a tuple
// for each would be an allocation. Texts of errors that the contract quotes are kept to the letter.
#include "py/objects.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <vector>

namespace onnxgraft::py {

namespace {

/// Unpacks `count` elements of any iterable into `out`.
void unpack(PyObject* iterable, Ref* out, Py_ssize_t count) {
  // Nearly always a tuple or a list of the right length, which needs no iterator.
  const bool is_plain = PyTuple_CheckExact(iterable) != 0 || PyList_CheckExact(iterable) != 0;
  if (is_plain && PySequence_Fast_GET_SIZE(iterable) == count) {
    for (Py_ssize_t index = 0; index < count; ++index)
      out[index] = Ref::borrow(PySequence_Fast_GET_ITEM(iterable, index));
    return;
  }
  const Ref elements = iterator(iterable);
  for (Py_ssize_t index = 0; index < count; ++index) {
    out[index] = next(elements.get());
    if (!out[index]) {
      raise(PyExc_ValueError, "need more than %zd value%.1s to unpack", index, index == 1 ? "" : "s");
    }
  }
  if (next(elements.get())) raise(PyExc_ValueError, "too many values to unpack (expected %zd)", count);
}

}  // namespace

Ref optional_attribute(PyObject* object, const InternedName& name) {
  Ref value = Ref::steal(PyObject_GetAttr(object, name.get()));
  if (value) return value;
  if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw PythonError{};
  PyErr_Clear();
  return value;
}

Ref call(PyObject* callable, std::initializer_list<PyObject*> arguments) {
  return checked(PyObject_Vectorcall(callable, arguments.begin(), arguments.size(), nullptr));
}

Ref call_method(PyObject* object, const InternedName& name, std::initializer_list<PyObject*> arguments) {
  return call_method(object, name, arguments, {});
}

Ref call_method(PyObject* object, const InternedName& name, std::initializer_list<PyObject*> arguments,
                std::initializer_list<Keyword> keywords) {
  constexpr std::size_t capacity = 12;
  const std::size_t count = 1 + arguments.size() + keywords.size();
  if (count > capacity) raise(PyExc_SystemError, "call_method: too many arguments");
  std::array<PyObject*, capacity> stack{};
  std::size_t at = 0;
  stack[at++] = object;
  for (PyObject* argument : arguments) stack[at++] = argument;
  Ref names;
  if (keywords.size() != 0) {
    names = checked(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())));
    Py_ssize_t position = 0;
    for (const Keyword& keyword : keywords) {
      PyTuple_SET_ITEM(names.get(), position++, Ref::borrow(keyword.name.get()).release());
      stack[at++] = keyword.value;
    }
  }
  return checked(PyObject_VectorcallMethod(name.get(), stack.data(), 1 + arguments.size(), names.get()));
}

Ref text(std::string_view value) {
  return checked(PyUnicode_FromStringAndSize(value.data(), static_cast<Py_ssize_t>(value.size())));
}

std::string_view utf8(PyObject* object) {
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(object, &size);
  if (data != nullptr) return {data, static_cast<std::size_t>(size)};
  if (PyBytes_Check(object) == 0) throw PythonError{};
  PyErr_Format(PyExc_ValueError, "%R is not UTF-8: all names in ONNX must be", object);
  throw NotUtf8{};
}

bool is_utf8(std::string_view text) {
  // Nearly all names are ASCII, which a test of eight characters at a time shows without the decoder.
  std::uint64_t bits = 0;
  std::string_view rest = text;
  for (std::uint64_t word = 0; rest.size() >= sizeof word; rest.remove_prefix(sizeof word)) {
    std::memcpy(&word, rest.data(), sizeof word);
    bits |= word;
  }
  for (const char c : rest) bits |= static_cast<unsigned char>(c);
  if ((bits & 0x8080808080808080U) == 0) return true;
  // NOLINTNEXTLINE(bugprone-suspicious-stringview-data-usage): its size goes along
  if (Ref::steal(PyUnicode_DecodeUTF8(text.data(), std::ssize(text), nullptr))) return true;
  PyErr_Clear();
  return false;
}

Ref integer(std::int64_t value) { return checked(PyLong_FromLongLong(value)); }

std::int64_t integer_value(PyObject* object) {
  const long long value = PyLong_AsLongLong(object);
  if (value == -1 && PyErr_Occurred() != nullptr) throw PythonError{};
  return value;
}

Ref tuple(std::initializer_list<PyObject*> elements) {
  Ref result = checked(PyTuple_New(static_cast<Py_ssize_t>(elements.size())));
  Py_ssize_t index = 0;
  for (PyObject* element : elements) {
    PyTuple_SET_ITEM(result.get(), index++, Ref::borrow(element).release());
  }
  return result;
}

bool is_written_in(PyObject* function, const char* module) {
  static const InternedName name_attribute("__name__");
  if (PyFunction_Check(function) == 0) return false;
  PyObject* name = PyDict_GetItemWithError(PyFunction_GetGlobals(function), name_attribute.get());
  if (name == nullptr && PyErr_Occurred() != nullptr) throw PythonError{};
  return name != nullptr && PyUnicode_Check(name) != 0 && PyUnicode_CompareWithASCIIString(name, module) == 0;
}

std::pair<Ref, Ref> unpack_pair(PyObject* iterable) {
  std::array<Ref, 2> parts;
  unpack(iterable, parts.data(), 2);
  return {std::move(parts[0]), std::move(parts[1])};
}

Ref unpack_one(PyObject* iterable) {
  Ref part;
  unpack(iterable, &part, 1);
  return part;
}

}  // namespace onnxgraft::py
