// Raising and translating errors.
//
// The table of translations is the only place that knows both sides: NotationError becomes ValueError, out of memory
// becomes MemoryError, and an error of the interpreter passes as it is. Anything else is a fault of this project.
#include "py/guard.h"

#include <cstdarg>
#include <exception>
#include <new>
#include <stdexcept>

#include "core/errors.h"

namespace onnxgraft::py {

// Variadic because the interpreter's format function is.
// NOLINTNEXTLINE(modernize-avoid-variadic-functions)
void raise(PyObject* type, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  PyErr_FormatV(type, format, arguments);
  va_end(arguments);
  throw PythonError{};
}

void translate_exception() noexcept {
  try {
    throw;
  } catch (const PythonError&) {
    if (PyErr_Occurred() == nullptr) {
      PyErr_SetString(PyExc_SystemError, "an error was reported without an exception");
    }
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const core::NotationError& error) {
    PyErr_SetString(PyExc_ValueError, error.what());
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "unknown C++ exception");
  }
}

}  // namespace onnxgraft::py
