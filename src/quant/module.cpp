// The extension module `quant`: its module-level names and the classes of the catalogue.
//
// Of its package it needs only the siblings `abstract_transformation` and `transform_utilities`, by relative
// import: the built file works in any package that holds such a pair.
#include <array>

#include "py/class_factory.h"
#include "py/module_entry.h"
#include "py/objects.h"
#include "quant/catalogue/catalogue.h"

namespace onnxgraft::quant {

namespace {

using py::Ref;

struct Import {
  const char* module;
  const char* name;
};

constexpr std::array standard_imports{
    Import{"abc", "ABC"},
    Import{"abc", "abstractmethod"},
    Import{"typing", "List"},
    Import{"typing", "Tuple"},
};

constexpr std::array onnx_imports{
    Import{"onnx", "GraphProto"},   Import{"onnx", "NodeProto"}, Import{"onnx", "TensorProto"},
    Import{"onnx", "numpy_helper"}, Import{"onnx", "helper"},    Import{"onnx", "AttributeProto"},
};

void set(PyObject* module, const char* name, const Ref& value) {
  py::check(PyObject_SetAttrString(module, name, value.get()));
}

/// `from module import name`, which also finds a submodule that is not loaded yet.
void import_name(PyObject* module, const Import& import) {
  const Ref names = py::tuple({py::text(import.name).get()});
  const Ref source = py::checked(PyImport_ImportModuleLevel(import.module, nullptr, nullptr, names.get(), 0));
  set(module, import.name, py::checked(PyObject_GetAttrString(source.get(), import.name)));
}

void fill(PyObject* module) {
  for (const Import& import : standard_imports) import_name(module, import);
  set(module, "onnx", py::checked(PyImport_ImportModule("onnx")));
  for (const Import& import : onnx_imports) import_name(module, import);
  set(module, "np", py::checked(PyImport_ImportModule("numpy")));
  const Ref base = py::import_sibling(module, "abstract_transformation");
  set(module, "AbstractTransformation", py::checked(PyObject_GetAttrString(base.get(), "AbstractTransformation")));
  set(module, "transform_utilities", py::import_sibling(module, "transform_utilities"));

  const Ref function_type = py::make_function_type(module);
  for (const py::ClassRow* row : catalogue()) py::add_class(module, function_type.get(), *row);
}

bool initialised = false;

int execute(PyObject* module) { return py::initialise_once(module, initialised, fill); }

std::array slots{
    PyModuleDef_Slot{Py_mod_exec, reinterpret_cast<void*>(execute)},
#ifdef Py_mod_multiple_interpreters
    PyModuleDef_Slot{Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
    PyModuleDef_Slot{0, nullptr},
};

constexpr const char* documentation =
    "Transformations of quantized ONNX graphs.\n\n"
    "Each class is made without arguments; apply(graph, debug=False) rewrites the GraphProto in place and returns\n"
    "the number of occurrences replaced.";

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "quant", documentation, 0, nullptr, slots.data(), nullptr, nullptr, nullptr,
};

}  // namespace

}  // namespace onnxgraft::quant

PyMODINIT_FUNC PyInit_quant() { return PyModuleDef_Init(&onnxgraft::quant::definition); }
