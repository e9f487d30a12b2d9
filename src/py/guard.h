// The border between C++ and the interpreter. Every C entry point runs its body inside `guarded`, so no C++ exception
// crosses into C, and each one arrives as the Python exception that fits it.
//
// Invariant: an entry point returns null or -1 if and only if an exception is set.
#pragma once

#include "py/ref.h"

namespace onnxgraft::py {

/// Translates the C++ exception in flight into the interpreter's error indicator.
void translate_exception() noexcept;

/// Runs `body` (returning Ref) for an entry point that returns an object.
template <class Body>
PyObject* guarded(Body&& body) noexcept {
  try {
    return std::forward<Body>(body)().release();
  } catch (...) {
    translate_exception();
    return nullptr;
  }
}

/// Runs `body` (returning void) for an entry point that returns 0 or -1.
template <class Body>
int guarded_status(Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
    return 0;
  } catch (...) {
    translate_exception();
    return -1;
  }
}

/// Keeps the exception that is being reported while clean-up code calls into the interpreter. Errors of the clean-up
/// itself are dropped, because the caller must see the first one.
class SavedError {
 public:
  SavedError() noexcept { PyErr_Fetch(&type_, &value_, &traceback_); }
  ~SavedError() { PyErr_Restore(type_, value_, traceback_); }
  SavedError(const SavedError&) = delete;
  SavedError& operator=(const SavedError&) = delete;

 private:
  PyObject* type_ = nullptr;
  PyObject* value_ = nullptr;
  PyObject* traceback_ = nullptr;
};

/// Runs clean-up while an error is reported, for example what takes back a half-made splice. Its own errors are
/// dropped.
template <class Body>
void clean_up_after_error(Body&& body) noexcept {
  const SavedError saved;
  guarded_status(std::forward<Body>(body));
  PyErr_Clear();
}

}  // namespace onnxgraft::py
