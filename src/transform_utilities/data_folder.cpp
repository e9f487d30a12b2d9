// The context manager `external_data_folder` and the variable that it sets.
//
// A manager is immutable; what was set before is kept in the context, so one manager can be entered twice. Must not
// open files.
#include "transform_utilities/data_folder.h"

#include <array>
#include <string>

#include "py/guard.h"

namespace onnxgraft::transform_utilities {

using py::Ref;

namespace {

/// The manager itself is immutable: what was set before is kept in the context, as (folder, what was before).
struct DataFolderObject {
  PyObject_HEAD PyObject* path;  // owned
};

// Made at import, owned by the process.
PyObject* variable = nullptr;

PyObject* path_of(PyObject* self) { return reinterpret_cast<DataFolderObject*>(self)->path; }

/// The chain of folders set in the current context; None if there is none.
Ref current_chain() {
  PyObject* value = nullptr;
  py::check(PyContextVar_Get(variable, Py_None, &value));
  return Ref::steal(value);
}

void set_chain(PyObject* chain) { const Ref token = py::checked(PyContextVar_Set(variable, chain)); }

PyObject* create(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
  return py::guarded([&] {
    static std::array<char, 5> path_keyword{"path"};
    std::array<char*, 2> names{path_keyword.data(), nullptr};
    PyObject* path = nullptr;
    if (PyArg_ParseTupleAndKeywords(arguments, keywords, "O:external_data_folder", names.data(), &path) == 0) {
      throw py::PythonError{};
    }
    PyObject* decoded = nullptr;
    if (PyUnicode_FSDecoder(path, static_cast<void*>(&decoded)) == 0) throw py::PythonError{};
    Ref text = Ref::steal(decoded);
    Ref self = py::checked(type->tp_alloc(type, 0));
    reinterpret_cast<DataFolderObject*>(self.get())->path = text.release();
    return self;
  });
}

void deallocate(PyObject* self) {
  Ref::steal(std::exchange(reinterpret_cast<DataFolderObject*>(self)->path, nullptr));
  const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
  Py_TYPE(self)->tp_free(self);
}

PyObject* enter(PyObject* self, PyObject* /*unused*/) {
  return py::guarded([&] {
    const Ref before = current_chain();
    set_chain(py::tuple({path_of(self), before.get()}).get());
    return Ref::borrow(path_of(self));
  });
}

PyObject* leave(PyObject* self, PyObject* /*exception*/) {
  return py::guarded([&] {
    const Ref chain = current_chain();
    if (PyTuple_Check(chain.get()) == 0 || PyTuple_GET_ITEM(chain.get(), 0) != path_of(self)) {
      py::raise(PyExc_RuntimeError,
                "external_data_folder(%R) is not the innermost one that was entered here: leave them in reverse order, "
                "in the thread or task that entered them",
                path_of(self));
    }
    set_chain(PyTuple_GET_ITEM(chain.get(), 1));
    return py::boolean(false);
  });
}

PyObject* represent(PyObject* self) { return PyUnicode_FromFormat("external_data_folder(%R)", path_of(self)); }

constexpr const char* documentation =
    "external_data_folder(path)\n--\n\n"
    "Context manager: get_init looks external data up in this folder.\n\n"
    "Without one it is the current directory. May be nested; threads and asynchronous tasks each have their own.\n\n"
    "Args:\n"
    "    path: The folder of the model, a str or os.PathLike.\n\n"
    "Raises:\n"
    "    TypeError: path is neither.\n\n"
    "Entering gives the path as a str.";

std::array methods{
    PyMethodDef{"__enter__", enter, METH_NOARGS, "Sets the folder and gives it as a str."},
    PyMethodDef{"__exit__", leave, METH_VARARGS, "Sets what was set before."},
    PyMethodDef{nullptr, nullptr, 0, nullptr},
};

template <class Function>
void* slot(Function* function) {
  return reinterpret_cast<void*>(function);
}

}  // namespace

Ref current_data_folder() {
  const Ref chain = current_chain();
  return chain.get() == Py_None ? py::text("") : py::item(chain.get(), 0);
}

void add_data_folder_type(PyObject* module) {
  if (variable == nullptr) variable = py::checked(PyContextVar_New("external_data_folder", nullptr)).release();
  std::array slots{
      PyType_Slot{Py_tp_new, slot(create)},
      PyType_Slot{Py_tp_dealloc, slot(deallocate)},
      PyType_Slot{Py_tp_repr, slot(represent)},
      PyType_Slot{Py_tp_methods, methods.data()},
      PyType_Slot{Py_tp_doc, const_cast<char*>(documentation)},
      PyType_Slot{0, nullptr},
  };
  // The interpreter may keep the pointer, so the text has to outlive the type.
  static const std::string full_name =
      std::string(py::utf8(py::checked(PyModule_GetNameObject(module)).get())) + ".external_data_folder";
  PyType_Spec description{
      full_name.c_str(), static_cast<int>(sizeof(DataFolderObject)), 0, Py_TPFLAGS_DEFAULT, slots.data(),
  };
  const Ref type = py::checked(PyType_FromModuleAndSpec(module, &description, nullptr));
  py::check(PyObject_SetAttrString(module, "external_data_folder", type.get()));
}

}  // namespace onnxgraft::transform_utilities
