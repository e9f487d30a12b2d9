#include "py/module_entry.h"

#include "py/objects.h"

namespace onnxgraft::py {

int initialise_once(PyObject* module, bool& done, void (*fill)(PyObject* module)) noexcept {
  return guarded_status([&] {
    if (done) {
      const Ref name = checked(PyModule_GetNameObject(module));
      const Ref parts = checked(PyUnicode_RPartition(name.get(), text(".").get()));
      raise(PyExc_RuntimeError, "Module '%U' has already been imported. Re-initialisation is not supported.",
            PyTuple_GET_ITEM(parts.get(), 2));
    }
    fill(module);
    done = true;
  });
}

Ref import_sibling(PyObject* module, const char* name) {
  const Ref names = tuple({text(name).get()});
  PyObject* globals = PyModule_GetDict(module);
  // `from . import name`: level 1 is the module's own package.
  const Ref package = checked(PyImport_ImportModuleLevel("", globals, nullptr, names.get(), 1));
  return checked(PyObject_GetAttrString(package.get(), name));
}

}  // namespace onnxgraft::py
