// The once-only entry, and the import of sibling modules.
//
// This is also where the core gets its interruption check, since it must not know the interpreter.
#include "py/module_entry.h"

#include "core/interruption.h"
#include "py/objects.h"

namespace onnxgraft::py {

int initialise_once(PyObject* module, bool& done, void (*fill)(PyObject* module)) noexcept {
  return guarded_status([&] {
    const bool is_main = PyInterpreterState_Get() == PyInterpreterState_Main();
    if (done || !is_main) {
      const Ref name = checked(PyModule_GetNameObject(module));
      const Ref parts = checked(PyUnicode_RPartition(name.get(), text(".").get()));
      PyObject* own_name = PyTuple_GET_ITEM(parts.get(), 2);
      if (!is_main) {
        raise(PyExc_ImportError, "Module '%U' can only be imported in the main interpreter, not in a sub-interpreter.",
              own_name);
      }
      raise(PyExc_RuntimeError, "Module '%U' has already been imported. Re-initialisation is not supported.", own_name);
    }
    core::interruption_check = [] { check(PyErr_CheckSignals()); };
    fill(module);
    done = true;
  });
}

Ref import_sibling(PyObject* module, const char* name) {
  const Ref names = tuple({text(name).get()});
  PyObject* globals = PyModule_GetDict(module);
  // `from . import name`; level 1 is the module's own package.
  const Ref package = checked(PyImport_ImportModuleLevel("", globals, nullptr, names.get(), 1));
  return checked(PyObject_GetAttrString(package.get(), name));
}

}  // namespace onnxgraft::py
