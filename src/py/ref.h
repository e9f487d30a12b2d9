// Owning references to Python objects: the only place in the project that counts references.
//
// `Ref` is move-only and releases what it owns. Every call into the interpreter is wrapped in `checked` or `check`,
// which turn a reported error into a `PythonError`; `guarded` (guard.h) turns it back at the border. A `PythonError`
// carries nothing: the interpreter's own error indicator holds the exception.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <string_view>
#include <utility>

namespace onnxgraft::py {

/// The interpreter's error indicator is set; unwinding to the border.
struct PythonError {};

class Ref {
 public:
  Ref() noexcept = default;
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  /// The old object is released last: its destructor may run any Python code, which must find this Ref in order.
  Ref& operator=(Ref&& other) noexcept {
    if (this != &other) {
      PyObject* old = std::exchange(object_, std::exchange(other.object_, nullptr));
      Py_XDECREF(old);
    }
    return *this;
  }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() { Py_XDECREF(object_); }

  /// Takes over a new reference; null stays null.
  static Ref steal(PyObject* object) noexcept { return Ref(object); }
  /// Adds a reference of its own.
  static Ref borrow(PyObject* object) noexcept {
    Py_XINCREF(object);
    return Ref(object);
  }

  [[nodiscard]] PyObject* get() const noexcept { return object_; }
  [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  [[nodiscard]] Ref copy() const noexcept { return borrow(object_); }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  explicit Ref(PyObject* object) noexcept : object_(object) {}
  PyObject* object_ = nullptr;
};

/// Takes over a new reference; null means that the call failed.
[[nodiscard]] inline Ref checked(PyObject* result) {
  if (result == nullptr) throw PythonError{};
  return Ref::steal(result);
}

/// For calls that report failure with a negative number; passes the number on.
template <class Integer>
inline Integer check(Integer status) {
  if (status < 0) throw PythonError{};
  return status;
}

/// Sets an exception (format as in PyErr_Format) and throws.
// NOLINTNEXTLINE(modernize-avoid-variadic-functions)
[[noreturn]] void raise(PyObject* type, const char* format, ...);

inline Ref none() { return Ref::borrow(Py_None); }
inline Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

}  // namespace onnxgraft::py
